#pragma once

#include "Description.h"
#include "Keys.h"
#include "Module.h"

namespace mirel::cardmaker {

/// Fills the template of the object that a line describes. Throws as `Line`, `KeyStore` and
/// `makeCertificate` do.
void describeObject(const Line& line, KeyStore& keys, Template& outAttributes);

}  // namespace mirel::cardmaker
