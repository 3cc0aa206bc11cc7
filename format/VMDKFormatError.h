#pragma once

#include "harl/foundation/kz/CProps.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/String.h"

namespace harl {

// The error of a file whose content is corrupt or of a form that the library does not read:
// a kz::CIOError code 5 whose properties begin with "uri", the file by toString(true).

// Throws it with `message`, "uri" and then `props`.
[[noreturn]] void throwVMDKFormatError(const kz::CURI& uri, const kz::String& message,
                                       const kz::CProps& props = kz::CProps());

// For a catch block: throws the exception being handled again. A kz::CIOError code 5 that names
// no file, as the decoders of records and the decompressor throw it, comes out as the same
// error with "uri", `props` and its own properties, in that order: nothing of it is lost.
[[noreturn]] void rethrowVMDKFormatErrorNamingFile(const kz::CURI& uri,
                                                   const kz::CProps& props = kz::CProps());

}  // namespace harl
