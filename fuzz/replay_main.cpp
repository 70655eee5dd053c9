// Stands in for libFuzzer where clang's runtime is not used (the ordinary sanitizer build): replays
// the files and folders named on the command line, then a fixed series of generated inputs, through
// the target's LLVMFuzzerTestOneInput. The test build runs every target this way, so a target that no
// longer compiles or that trips the sanitizers on its seeds fails the tests, not the next fuzzing
// session.
//
//   <name>_replay [--runs N] [--save FOLDER] [FILE|FOLDER ...]
//
// --save writes each generated input to FOLDER/generated-<n> before it runs, so a failure can be
// replayed alone, here or with the libFuzzer build.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void RunOne(const std::string& bytes) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string ReadWhole(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Random bytes seldom look like anything the parsers know, so half of each input is made of the
// separators, keywords and digits the agent's texts are built from.
std::string Generated(std::mt19937& rng, size_t index) {
  static const std::vector<std::string> words = {
      "|", "||", "@", ":", ";", "=", ",", ".", "..", "\\", "/", "\r\n", "\n", "\r", std::string(1, '\0'),
      "SUCCESS", "ERROR", "NONE", "|SENDFRAMES|", "|READY|", "|GETINFO|", "|SETEXT|", "|LOGIN|",
      "|OKAY|", "SERVERTEMP=", "FTP@", "SSH@", "Port=", "LOCALTEMP=", "USETRACE=", "IPMASK=",
      "TDLIVEID=", "SCREEN100=", "SCR:", "ATLOGO:", "Code=", "STOP=MySelf", "ServerPort=",
      "[Config]", "Ext=", "Server=", "ListeningPorts=", "127.0.0.1", "10.0.0.", "</string>",
      "<string xmlns=\"http://tempuri.org/\">", "HTTP 404", "2026-11-14 10:00", "0", "1", "9", "128",
      "4294967296", "-1", "MZ", std::string("PE\0\0", 4), "VS_VERSION_INFO", "StringFileInfo", "VarFileInfo"};
  const size_t limit = size_t{16} << (index % 7);  // 16 bytes to 1 KiB
  const size_t length = rng() % (limit + 1);
  std::string s;
  while (s.size() < length) {
    if (rng() % 2) {
      s += words[rng() % words.size()];
    } else {
      s += static_cast<char>(rng() % 256);
    }
  }
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  size_t runs = 1000;
  size_t replayed = 0;
  std::filesystem::path save;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      runs = std::strtoul(argv[++i], nullptr, 10);
      continue;
    }
    if (arg == "--save" && i + 1 < argc) {
      save = argv[++i];
      std::filesystem::create_directories(save);
      continue;
    }
    const std::filesystem::path path(arg);
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(path)) {
      for (const auto& entry : std::filesystem::directory_iterator(path))
        if (entry.is_regular_file()) files.push_back(entry.path());
    } else {
      files.push_back(path);
    }
    for (const auto& file : files) {
      RunOne(ReadWhole(file));
      ++replayed;
    }
  }
  RunOne("");
  std::mt19937 rng(20261124);
  for (size_t i = 0; i < runs; ++i) {
    const std::string input = Generated(rng, i);
    if (!save.empty()) std::ofstream(save / ("generated-" + std::to_string(i)), std::ios::binary) << input;
    RunOne(input);
  }
  std::printf("replayed %zu files and %zu generated inputs\n", replayed, runs + 1);
  return 0;
}
