// Windows path forms that the C runtime treats differently from the file-system object semantics the
// helpers keep.
#include <gtest/gtest.h>

#include "common/files.h"

namespace tdacli {
namespace {

#ifdef _WIN32

TEST(WindowsPaths, DriveRootExistsWithAndWithoutItsSeparator) {
  EXPECT_TRUE(FolderExists("C:\\"));
  EXPECT_TRUE(FolderExists("C:"));
  EXPECT_FALSE(FileExists("C:\\"));
}

#endif

}  // namespace
}  // namespace tdacli
