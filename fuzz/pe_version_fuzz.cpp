// Arbitrary bytes as a file in the application folder handed to the portable reader of PE version
// resources: as a whole image (headers, sections, the resource tree) and as a version block on its
// own. Seed it with real images (tests/data/pe, the cross-built programs).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/pe_version.h"

namespace {

void Check(const tdacli::platform::VersionStrings& v) {
  for (const std::string* s : {&v.CompanyName, &v.FileDescription, &v.FileVersion, &v.InternalName,
                               &v.LegalCopyright, &v.OriginalFilename, &v.ProductName, &v.ProductVersion}) {
    // Texts end at their first NUL and come from a block of at most 64 KiB.
    if (s->find('\0') != std::string::npos || s->size() > 0x10000) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tdacli::platform;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  MemorySource image(bytes);
  VersionStrings v;
  std::string block;
  if (FindPeVersionResource(image, block) && block.size() > 0xFFFF) std::abort();
  ReadPeVersionStrings(image, v);
  Check(v);
  ParseVersionBlock(bytes, v);
  Check(v);
  return 0;
}
