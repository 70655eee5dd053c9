#include "platform/pe_version.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace tdacli::platform {

bool MemorySource::Read(uint64_t offset, void* out, size_t n) {
  if (offset > bytes_.size() || n > bytes_.size() - offset) return false;
  if (n != 0) std::memcpy(out, bytes_.data() + offset, n);
  return true;
}

namespace {

// A version resource cannot be longer than its 16-bit root length.
constexpr uint32_t kMaxVersionBlock = 0xFFFF;
// The loader refuses images with more sections than this.
constexpr uint16_t kMaxSections = 96;

bool ReadU16(ByteSource& s, uint64_t at, uint16_t& v) {
  uint8_t b[2];
  if (!s.Read(at, b, 2)) return false;
  v = static_cast<uint16_t>(b[0] | (b[1] << 8));
  return true;
}

bool ReadU32(ByteSource& s, uint64_t at, uint32_t& v) {
  uint8_t b[4];
  if (!s.Read(at, b, 4)) return false;
  v = static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) | (static_cast<uint32_t>(b[2]) << 16) |
      (static_cast<uint32_t>(b[3]) << 24);
  return true;
}

struct Section {
  uint32_t virtual_address = 0, virtual_size = 0, raw_size = 0, raw_offset = 0;
};

// The file offset of `size` bytes at `rva`, when they lie in one section's data in the file.
bool RvaToOffset(const std::vector<Section>& sections, uint64_t file_size, uint32_t rva, uint32_t size,
                 uint64_t& offset) {
  for (const Section& s : sections) {
    if (rva < s.virtual_address) continue;
    const uint64_t delta = uint64_t{rva} - s.virtual_address;
    const uint64_t extent = std::max(s.virtual_size, s.raw_size);
    if (delta >= extent) continue;
    if (delta + size > s.raw_size) return false;  // not backed by the file
    offset = uint64_t{s.raw_offset} + delta;
    return offset <= file_size && size <= file_size - offset;
  }
  return false;
}

// One level of the resource tree: the entry with `id` (or the first entry when `id` is negative).
// Returns the entry's OffsetToData field.
bool FindEntry(ByteSource& s, uint64_t root, uint64_t root_size, uint32_t dir_offset, long id, uint32_t& data) {
  if (uint64_t{dir_offset} + 16 > root_size) return false;
  uint16_t named = 0, ids = 0;
  if (!ReadU16(s, root + dir_offset + 12, named) || !ReadU16(s, root + dir_offset + 14, ids)) return false;
  const uint32_t count = uint32_t{named} + ids;
  const uint64_t entries = uint64_t{dir_offset} + 16;
  if (entries + uint64_t{count} * 8 > root_size) return false;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t name = 0, value = 0;
    if (!ReadU32(s, root + entries + uint64_t{i} * 8, name) || !ReadU32(s, root + entries + uint64_t{i} * 8 + 4, value))
      return false;
    if (id < 0 || ((name & 0x80000000u) == 0 && name == static_cast<uint32_t>(id))) {
      data = value;
      return true;
    }
  }
  return false;
}

}  // namespace

bool FindPeVersionResource(ByteSource& s, std::string& block) {
  block.clear();
  const uint64_t file_size = s.Size();
  uint16_t mz = 0;
  if (!ReadU16(s, 0, mz) || mz != 0x5A4D) return false;  // "MZ"
  uint32_t pe = 0, signature = 0;
  if (!ReadU32(s, 0x3C, pe) || !ReadU32(s, pe, signature) || signature != 0x00004550) return false;  // "PE\0\0"
  const uint64_t coff = uint64_t{pe} + 4;
  uint16_t section_count = 0, optional_size = 0, magic = 0;
  if (!ReadU16(s, coff + 2, section_count) || !ReadU16(s, coff + 16, optional_size)) return false;
  const uint64_t optional = coff + 20;
  if (!ReadU16(s, optional, magic)) return false;
  uint64_t count_at = 0;
  if (magic == 0x10B)
    count_at = 92;  // PE32
  else if (magic == 0x20B)
    count_at = 108;  // PE32+
  else
    return false;
  uint32_t directories = 0;
  if (count_at + 4 > optional_size || !ReadU32(s, optional + count_at, directories)) return false;
  // The resource table is the third data directory; it must lie inside the optional header.
  const uint64_t resource_dir = count_at + 4 + 2 * 8;
  if (directories < 3 || resource_dir + 8 > optional_size) return false;
  uint32_t resource_rva = 0, resource_size = 0;
  if (!ReadU32(s, optional + resource_dir, resource_rva) || !ReadU32(s, optional + resource_dir + 4, resource_size))
    return false;
  if (resource_rva == 0 || section_count == 0 || section_count > kMaxSections) return false;

  std::vector<Section> sections;
  const uint64_t table = optional + optional_size;
  for (uint16_t i = 0; i < section_count; ++i) {
    const uint64_t at = table + uint64_t{i} * 40;
    Section sec;
    if (!ReadU32(s, at + 8, sec.virtual_size) || !ReadU32(s, at + 12, sec.virtual_address) ||
        !ReadU32(s, at + 16, sec.raw_size) || !ReadU32(s, at + 20, sec.raw_offset))
      return false;
    sections.push_back(sec);
  }

  // The resource tree lies in the section that holds its root; offsets inside it are relative to the
  // root and may not leave that section's data in the file.
  uint64_t root = 0, root_size = 0;
  for (const Section& sec : sections) {
    if (resource_rva < sec.virtual_address) continue;
    const uint64_t delta = uint64_t{resource_rva} - sec.virtual_address;
    if (delta >= std::max(sec.virtual_size, sec.raw_size) || delta >= sec.raw_size) continue;
    root = uint64_t{sec.raw_offset} + delta;
    root_size = sec.raw_size - delta;
    break;
  }
  if (root_size == 0 || root >= file_size) return false;
  root_size = std::min(root_size, file_size - root);

  // Type 16 (version), name 1, then the first language; only the last level may be a data entry.
  uint32_t entry = 0;
  if (!FindEntry(s, root, root_size, 0, 16, entry) || (entry & 0x80000000u) == 0) return false;
  if (!FindEntry(s, root, root_size, entry & 0x7FFFFFFFu, 1, entry) || (entry & 0x80000000u) == 0) return false;
  if (!FindEntry(s, root, root_size, entry & 0x7FFFFFFFu, -1, entry) || (entry & 0x80000000u) != 0) return false;
  if (uint64_t{entry} + 16 > root_size) return false;
  uint32_t data_rva = 0, data_size = 0;
  if (!ReadU32(s, root + entry, data_rva) || !ReadU32(s, root + entry + 4, data_size)) return false;
  if (data_size == 0) return false;
  data_size = std::min(data_size, kMaxVersionBlock);
  uint64_t data_offset = 0;
  if (!RvaToOffset(sections, file_size, data_rva, data_size, data_offset)) return false;
  block.resize(data_size);
  if (!s.Read(data_offset, block.data(), data_size)) {
    block.clear();
    return false;
  }
  return true;
}

namespace {

// One node of a version block: length, value length, type, key, value, children.
struct Node {
  size_t begin = 0, end = 0;  // the node within the block
  size_t value = 0, value_bytes = 0;
  size_t children = 0;
  std::u16string key;
};

uint16_t U16At(std::string_view b, size_t at) {
  return static_cast<uint16_t>(static_cast<uint8_t>(b[at]) | (static_cast<uint8_t>(b[at + 1]) << 8));
}

size_t Align4(size_t v) { return (v + 3) & ~size_t{3}; }

// The node at `at`, which must end within `limit`.
bool NodeAt(std::string_view b, size_t at, size_t limit, Node& n) {
  if (at + 6 > limit) return false;
  const size_t length = U16At(b, at);
  if (length < 6 || at + length > limit) return false;
  n.begin = at;
  n.end = at + length;
  const size_t value_length = U16At(b, at + 2);
  const uint16_t type = U16At(b, at + 4);
  n.key.clear();
  size_t p = at + 6;
  for (;; p += 2) {
    if (p + 2 > n.end) return false;
    const char16_t c = static_cast<char16_t>(U16At(b, p));
    if (c == 0) break;
    n.key += c;
  }
  n.value = std::min(Align4(p + 2), n.end);
  // Text values count characters, binary ones bytes; either is cut at the node's end.
  n.value_bytes = std::min(type == 1 ? value_length * 2 : value_length, n.end - n.value);
  n.children = std::min(Align4(n.value + n.value_bytes), n.end);
  return true;
}

bool SameKey(const std::u16string& a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char16_t x = a[i], y = b[i];
    if (x >= u'a' && x <= u'z') x = static_cast<char16_t>(x - 32);
    if (y >= u'a' && y <= u'z') y = static_cast<char16_t>(y - 32);
    if (x != y) return false;
  }
  return true;
}

// The child of `parent` named `key`; each step moves forward by at least one aligned node length.
bool FindChild(std::string_view b, const Node& parent, std::u16string_view key, Node& child) {
  size_t at = parent.children;
  while (at < parent.end) {
    Node n;
    if (!NodeAt(b, at, parent.end, n)) return false;
    if (SameKey(n.key, key)) {
      child = n;
      return true;
    }
    at = Align4(n.end);
  }
  return false;
}

bool FindPath(std::string_view b, const Node& root, std::initializer_list<std::u16string_view> path, Node& out) {
  Node cur = root;
  for (std::u16string_view key : path) {
    Node next;
    if (!FindChild(b, cur, key, next)) return false;
    cur = next;
  }
  out = cur;
  return true;
}

// The characters code page 1252 places at 0x80..0x9F (0: none).
constexpr std::array<char16_t, 32> kCp1252High = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

char ToAnsi(char16_t c) {
  if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) return static_cast<char>(c);
  for (size_t i = 0; i < kCp1252High.size(); ++i)
    if (kCp1252High[i] != 0 && kCp1252High[i] == c) return static_cast<char>(0x80 + i);
  return '?';
}

std::string TextValue(std::string_view b, const Node& n) {
  std::string out;
  for (size_t p = n.value; p + 2 <= n.value + n.value_bytes; p += 2) {
    const char16_t c = static_cast<char16_t>(U16At(b, p));
    if (c == 0) break;
    out += ToAnsi(c);
  }
  return out;
}

std::u16string Hex8(uint16_t language, uint16_t code_page) {
  static constexpr char16_t kDigits[] = u"0123456789ABCDEF";
  std::u16string s;
  for (uint16_t v : {language, code_page})
    for (int shift = 12; shift >= 0; shift -= 4) s += kDigits[(v >> shift) & 0xF];
  return s;
}

}  // namespace

bool ParseVersionBlock(std::string_view b, VersionStrings& out) {
  out = VersionStrings{};
  Node root;
  if (!NodeAt(b, 0, b.size(), root)) return false;
  Node translation;
  if (!FindPath(b, root, {u"VarFileInfo", u"Translation"}, translation) || translation.value_bytes < 4) return false;
  const uint16_t language = U16At(b, translation.value), code_page = U16At(b, translation.value + 2);
  Node table;
  if (!FindPath(b, root, {u"StringFileInfo", Hex8(language, code_page)}, table)) return true;  // all keys empty
  const std::pair<std::u16string_view, std::string*> keys[] = {
      {u"CompanyName", &out.CompanyName},         {u"FileDescription", &out.FileDescription},
      {u"FileVersion", &out.FileVersion},         {u"InternalName", &out.InternalName},
      {u"LegalCopyright", &out.LegalCopyright},   {u"OriginalFilename", &out.OriginalFilename},
      {u"ProductName", &out.ProductName},         {u"ProductVersion", &out.ProductVersion}};
  for (const auto& [key, field] : keys) {
    Node n;
    if (FindChild(b, table, key, n)) *field = TextValue(b, n);
  }
  return true;
}

bool ReadPeVersionStrings(ByteSource& image, VersionStrings& out) {
  out = VersionStrings{};
  std::string block;
  return FindPeVersionResource(image, block) && ParseVersionBlock(block, out);
}

}  // namespace tdacli::platform
