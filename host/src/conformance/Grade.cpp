#include "host/Conformance.h"

namespace mirel {
namespace {

struct GradeRow {
  bool signsPss;
  bool signsPkcs1;
  bool decrypts;
  Grade grade;
};

constexpr GradeRow kGrades[] = {
    {true, true, true, {"A", "TLS login, S/MIME and PDF signatures, and S/MIME decryption"}},
    {true, false, true, {"B", "TLS 1.3 login and S/MIME decryption; no PKCS #1 v1.5 signatures"}},
    {true, true, false, {"B", "TLS login, S/MIME and PDF signatures; no decryption"}},
    {true, false, false, {"C", "TLS 1.3 login; no PKCS #1 v1.5 signatures, no decryption"}},
    {false, true, true, {"D", "PKCS #1 v1.5 signatures and S/MIME decryption; no TLS 1.3 login"}},
    {false, true, false, {"D", "PKCS #1 v1.5 signatures; no TLS 1.3 login, no decryption"}},
    {false, false, true, {"D", "S/MIME decryption; no signatures"}},
    {false, false, false, {"E", "certificates are shown, and no key signs or decrypts"}},
};

}  // namespace

Grade gradeOf(const CardAbilities& abilities) noexcept {
  if (abilities.published == false) return {"F", "nothing is published"};
  if (!abilities.published) return {"-", "not known: no card was read"};
  if (!abilities.signsPss || !abilities.signsPkcs1 || !abilities.decrypts)
    return {"-",
            "certificates are published; what the keys do was not all seen, which takes a login and "
            "trials that tell something"};
  for (const GradeRow& row : kGrades) {
    if (row.signsPss == *abilities.signsPss && row.signsPkcs1 == *abilities.signsPkcs1 &&
        row.decrypts == *abilities.decrypts)
      return row.grade;
  }
  return {"-", "not known"};  // every combination has a row
}

}  // namespace mirel
