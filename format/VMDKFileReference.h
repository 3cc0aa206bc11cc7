#pragma once

#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/String.h"

namespace harl {

// Turns a file reference of a descriptor (an extent file name, "parentFileNameHint") into the
// URI of that file. `folder` is the getParent() of the URI of the file that holds the
// reference; a relative reference resolves against it, never against a working directory.
//
// The reference may have been written on any system, so its own text tells its syntax, in
// this order:
//   1. a letter, ":" and "\" or "/" ("C:\a", "C:/a"): a Windows path with a drive;
//   2. a ":" behind the first character with no "\" or "/" before it: a URI, whose scheme is
//      what stands before the ":" ("file:///a", also "C:disk.vmdk");
//   3. any "\": a Windows path;
//   4. anything else, the empty text included: a Unix path.
// The answer is in toNormalized() form and does not depend on the system that runs this.
//
// Throws kz::CBadPathError "Invalid path: <reference>" for a Windows path whose ".." climbs
// above its root, and the kz::CError of the URI parser for a malformed URI.
kz::CURI vmdkFileReferenceToURI(const kz::CURI& folder, const kz::String& reference);

}  // namespace harl
