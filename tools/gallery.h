// The gallery command of the imgcolor tool.
#pragma once

#include <string>
#include <vector>

namespace imgtool {

// imgcolor gallery [PHOTO] [DIR] [--quiet]: runs every operation on PHOTO
// (default the built-in sample) and writes DIR (default ./gallery): the
// thumbnails, the tone-curve plots and index.html. Throws UsageError or
// Failure like the other commands.
int RunGallery(const std::vector<std::string> &args);

}  // namespace imgtool
