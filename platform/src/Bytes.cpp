#include "platform/Bytes.h"

#include "platform/Memory.h"

namespace mirel {

Bytes Bytes::secret(const Bytes& bytes) {
  struct Wiped {
    explicit Wiped(std::shared_ptr<const ByteVector> owned) : bytes{std::move(owned)} {}
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;
    // The vector is constant, its elements are not.
    ~Wiped() { wipe(const_cast<std::uint8_t*>(bytes->data()), bytes->size()); }

    std::shared_ptr<const ByteVector> bytes;
  };
  if (bytes.isNull()) return {};
  const auto owner = std::make_shared<const Wiped>(bytes.bytes_);
  Bytes result;
  result.bytes_ = {owner, owner->bytes.get()};
  return result;
}

}  // namespace mirel
