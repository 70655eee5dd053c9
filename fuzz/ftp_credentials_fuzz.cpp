// Feeds arbitrary bytes to the FTP credentials parser as the server temp reply of a login.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "config/result_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const tdacli::FtpCredentials c = tdacli::ParseFtpCredentials(text);

  if (!c.present) {
    if (!c.folder.empty() || !c.server.empty() || !c.user_name.empty() || !c.encrypted_password.empty() ||
        c.port != "21" || c.ssl || c.auth_tls || c.passive || c.passive_use_host_addr)
      __builtin_trap();
    return 0;
  }
  if (c.protocol != "FTP" && c.protocol != "SSH") __builtin_trap();
  // The folder is the text before the first ":" (or empty without one).
  const size_t colon = text.find(':');
  if (c.folder != (colon == std::string_view::npos ? std::string_view() : text.substr(0, colon))) __builtin_trap();
  // The fields are pieces of the reply: together they are never longer than it.
  if (c.folder.size() + c.server.size() + c.user_name.size() + c.encrypted_password.size() > size) __builtin_trap();
  return 0;
}
