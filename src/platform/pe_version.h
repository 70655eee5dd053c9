#pragma once
// A portable reader of the version resource inside PE images (32- and 64-bit), for hosts without the
// Windows version API. Every file it reads is treated as hostile: each offset and length is checked
// against the file before it is used, loops are bounded by the data they walk, and nothing is read
// beyond the 64 KiB a version resource can hold.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/version_info.h"

namespace tdacli::platform {

// Random access to the bytes of an image.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual uint64_t Size() const = 0;
  // Copies `n` bytes from `offset`; false when they are not all there.
  virtual bool Read(uint64_t offset, void* out, size_t n) = 0;
};

class MemorySource : public ByteSource {
 public:
  explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}
  uint64_t Size() const override { return bytes_.size(); }
  bool Read(uint64_t offset, void* out, size_t n) override;

 private:
  std::string_view bytes_;
};

// The raw version resource (type 16, name 1, first language), as GetFileVersionInfo copies it; false
// when the image has none or its headers do not hold together.
bool FindPeVersionResource(ByteSource& image, std::string& block);

// The first translation of a version block and the eight strings under it, as VerQueryValue finds
// them (keys compared without regard to case, texts cut at their first NUL and converted to the ANSI
// code page 1252); false when the block has no translation.
bool ParseVersionBlock(std::string_view block, VersionStrings& out);

// Both steps for one image.
bool ReadPeVersionStrings(ByteSource& image, VersionStrings& out);

}  // namespace tdacli::platform
