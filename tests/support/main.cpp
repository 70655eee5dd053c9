#include <gtest/gtest.h>

#include "support/child_process.h"

int main(int argc, char** argv) {
  // Run again as a child process for one job of a test (see child_process.h).
  if (auto status = tdacli::testing::RunChildJob(argc, argv)) return *status;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
