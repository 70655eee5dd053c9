// The simulator's documented users-file example for "100Screen" must be a parameter line the agent can
// read back: the help text, its README and the demo users file.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "service/wiring.h"
#include "triggers/capture_files.h"
#include "usage.h"

namespace tdacli {
namespace {

// The value of the first "100Screen=" line of `text`.
std::string ExampleValue(const std::string& text) {
  const std::string key = "100Screen=";
  const size_t at = text.find(key);
  if (at == std::string::npos) return "";
  const size_t end = text.find_first_of("\r\n", at);
  return text.substr(at + key.size(), end - at - key.size());
}

std::string Read(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

void ExpectReadable(const std::string& value, const std::string& where) {
  ASSERT_GE(value.size(), 24u) << where << ": " << value;
  ScreenParams p;
  p.first_number = p.second_number = p.third_number = p.max_age_days = -1;
  ParseScreenParamLine(value, p);
  EXPECT_EQ(p.first_number, 10) << where;
  EXPECT_EQ(p.schedule, "ATLOGOUT") << where;
  EXPECT_EQ(p.max_age_days, 4) << where;
  EXPECT_EQ(p.second_number, 10) << where;
  EXPECT_EQ(p.third_number, 1) << where;
}

TEST(LoginServerUsersExample, HelpExampleIsAParameterLineTheAgentReads) {
  const std::string value = ExampleValue(loginsim::kUsage);
  EXPECT_EQ(value, "SCR:010|ATLOGO:4|010|001");
  ExpectReadable(value, "--help");
}

TEST(LoginServerUsersExample, ReadmeAndDemoUseTheSameLayout) {
  ExpectReadable(ExampleValue(Read(std::string(TDACLI_SOURCE_DIR) + "/tools/td-login-server/README.md")), "README");
  ExpectReadable(ExampleValue(Read(std::string(TDACLI_SOURCE_DIR) + "/demo/users.txt")), "demo/users.txt");
}

}  // namespace
}  // namespace tdacli
