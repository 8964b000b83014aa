#include "bridge/CardRules.h"

namespace mirel {

Text certificateNameOf(const Text& label, const Text& id) {
  return joined({Text{kCertificateNamePrefix}, label, Text{u"_"}, id});
}

}  // namespace mirel
