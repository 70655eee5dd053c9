// The version resource of PE images: the same files give the same strings through the portable reader
// (Linux) and through the Windows version API (the same test under Wine), and hostile images never
// make the portable reader read outside the file.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "platform/pe_version.h"
#include "platform/version_info.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

namespace fs = std::filesystem;
using platform::VersionStrings;

std::string Fixture(const std::string& name) {
  std::string p = std::string(TDACLI_SOURCE_DIR) + "/tests/data/pe/" + name;
#ifdef _WIN32
  for (char& c : p)
    if (c == '/') c = '\\';
  p = "Z:" + p;  // the host's root as Wine shows it
#endif
  return p;
}

std::vector<std::string> Fields(const VersionStrings& v) {
  return {v.CompanyName, v.FileDescription, v.FileVersion,  v.InternalName,
          v.LegalCopyright, v.OriginalFilename, v.ProductName, v.ProductVersion};
}

const std::vector<std::string> kFull = {"Tyndrel Systems", "Agent Client Test Component", "3, 0, 0, 7", "TDTEST",
                                        "Copyright (C) 2026 Tyndrel", "TDTEST.EXE", "Tyndrel Agent Client",
                                        "3, 0, 0, 7"};

TEST(VersionResource, AllEightStringsOfA64BitImage) {
  VersionStrings v;
  ASSERT_TRUE(platform::ReadFileVersionStrings(Fixture("full64.dll"), v));
  EXPECT_EQ(Fields(v), kFull);
}

TEST(VersionResource, AllEightStringsOfA32BitImage) {
  VersionStrings v;
  ASSERT_TRUE(platform::ReadFileVersionStrings(Fixture("full32.dll"), v));
  EXPECT_EQ(Fields(v), kFull);
}

TEST(VersionResource, ExecutableWithCodeAndOtherResources) {
  VersionStrings v;
  ASSERT_TRUE(platform::ReadFileVersionStrings(Fixture("prog64.exe"), v));
  std::vector<std::string> expected = kFull;
  expected[2] = "2, 1, 0, 15";
  EXPECT_EQ(Fields(v), expected);
}

TEST(VersionResource, OtherLanguageAndCodePageWithMissingKeysEmpty) {
  VersionStrings v;
  ASSERT_TRUE(platform::ReadFileVersionStrings(Fixture("german64.dll"), v));
  EXPECT_EQ(Fields(v), (std::vector<std::string>{"Tyndrel GmbH", "", "1.2.3.4", "", "", "", "Agent Client", ""}));
}

TEST(VersionResource, TranslationWithoutItsStringTableGivesEmptyStrings) {
  VersionStrings v;
  v.FileVersion = "stale";
  EXPECT_TRUE(platform::ReadFileVersionStrings(Fixture("mismatch64.dll"), v));
  EXPECT_EQ(Fields(v), std::vector<std::string>(8));
}

TEST(VersionResource, NoTranslationNoResourceNoFile) {
  VersionStrings v;
  EXPECT_FALSE(platform::ReadFileVersionStrings(Fixture("notrans64.dll"), v));
  EXPECT_FALSE(platform::ReadFileVersionStrings(Fixture("nover64.exe"), v));
  EXPECT_FALSE(platform::ReadFileVersionStrings(Fixture("missing.dll"), v));
  EXPECT_FALSE(platform::ReadFileVersionStrings(Fixture("make-fixtures.sh"), v));
}

#ifdef _WIN32
// The Windows version API and the portable reader agree on every image at hand: the fixtures, the
// cross-built programs and the system's own libraries.
TEST(VersionResource, PortableReaderAgreesWithTheWindowsApi) {
  std::vector<std::string> files;
  for (const char* f : {"full64.dll", "full32.dll", "german64.dll", "mismatch64.dll", "notrans64.dll", "prog64.exe",
                        "nover64.exe"})
    files.push_back(Fixture(f));
  std::error_code ec;
  for (const auto& dir : {fs::path(TDACLI_BIN_DIR), fs::path("C:\\windows\\system32")}) {
    int taken = 0;
    for (auto it = fs::directory_iterator(dir, ec); !ec && it != fs::directory_iterator() && taken < 80;
         it.increment(ec)) {
      const std::string ext = it->path().extension().string();
      if (ext == ".exe" || ext == ".dll") {
        files.push_back(it->path().string());
        ++taken;
      }
    }
  }
  int with_version = 0;
  for (const auto& f : files) {
    VersionStrings api, portable;
    const bool a = platform::ReadFileVersionStrings(f, api);
    const std::string bytes = testing::ReadFile(f);
    platform::MemorySource source(bytes);
    const bool p = platform::ReadPeVersionStrings(source, portable);
    EXPECT_EQ(a, p) << f;
    if (a && p) {
      EXPECT_EQ(Fields(api), Fields(portable)) << f;
      ++with_version;
    }
  }
  std::printf("compared %zu images, %d of them with a version resource\n", files.size(), with_version);
  EXPECT_GE(with_version, 10);
}
#endif

// --- hostile images, in memory

std::string FixtureBytes(const std::string& name) { return testing::ReadFile(Fixture(name)); }

bool ReadsAs(const std::string& bytes, VersionStrings& v) {
  platform::MemorySource s(bytes);
  return platform::ReadPeVersionStrings(s, v);
}

TEST(VersionResourceHostile, EveryTruncationIsSafe) {
  for (const char* name : {"full64.dll", "full32.dll", "prog64.exe"}) {
    const std::string bytes = FixtureBytes(name);
    ASSERT_FALSE(bytes.empty()) << name;
    for (size_t n = 0; n < bytes.size(); n += (bytes.size() > 4096 ? 7 : 1)) {
      VersionStrings v;
      const std::string cut = bytes.substr(0, n);  // exact size: the sanitizers see any overread
      ReadsAs(cut, v);
    }
  }
}

TEST(VersionResourceHostile, RandomCorruptionIsSafe) {
  const std::string original = FixtureBytes("full64.dll");
  std::mt19937 rng(42);
  for (int round = 0; round < 3000; ++round) {
    std::string bytes = original;
    const int flips = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < flips; ++i) bytes[rng() % bytes.size()] = static_cast<char>(rng());
    VersionStrings v;
    ReadsAs(bytes, v);
  }
}

// A version block whose first child claims a zero length must not loop.
TEST(VersionResourceHostile, ZeroLengthNodesEndTheSearch) {
  std::string block;
  auto u16 = [&](uint16_t v) {
    block += static_cast<char>(v & 0xFF);
    block += static_cast<char>(v >> 8);
  };
  u16(64);  // root length
  u16(0);
  u16(0);
  for (char16_t c : std::u16string(u"VS_VERSION_INFO")) u16(c);
  u16(0);
  while (block.size() % 4) block += '\0';
  block += std::string(8, '\0');  // a child with length 0
  block.resize(64, '\0');
  VersionStrings v;
  EXPECT_FALSE(platform::ParseVersionBlock(block, v));
}

TEST(VersionResourceHostile, NotAnImage) {
  VersionStrings v;
  EXPECT_FALSE(ReadsAs("", v));
  EXPECT_FALSE(ReadsAs("MZ", v));
  std::string header(0x40, '\0');
  header[0] = 'M';
  header[1] = 'Z';
  header[0x3C] = '\x7F';
  header[0x3D] = '\x7F';
  header[0x3E] = '\x7F';
  header[0x3F] = '\x7F';  // e_lfanew far beyond the file
  EXPECT_FALSE(ReadsAs(header, v));
}

TEST(VersionResourceHostile, SectionOffsetsBeyondTheFileAreRefused) {
  std::string bytes = FixtureBytes("full64.dll");
  ASSERT_GT(bytes.size(), 0x200u);
  // Every section's raw data pointer moved past the end of the file.
  const uint32_t pe = static_cast<uint8_t>(bytes[0x3C]) | static_cast<uint8_t>(bytes[0x3D]) << 8;
  const uint16_t sections = static_cast<uint8_t>(bytes[pe + 6]) | static_cast<uint8_t>(bytes[pe + 7]) << 8;
  const uint16_t optional = static_cast<uint8_t>(bytes[pe + 20]) | static_cast<uint8_t>(bytes[pe + 21]) << 8;
  for (uint16_t i = 0; i < sections; ++i) {
    const size_t at = pe + 24 + optional + i * 40 + 20;
    bytes[at] = bytes[at + 1] = bytes[at + 2] = '\xF0';
    bytes[at + 3] = '\x7F';
  }
  VersionStrings v;
  EXPECT_FALSE(ReadsAs(bytes, v));
}

}  // namespace
}  // namespace tdacli
