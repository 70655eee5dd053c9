#pragma once
// The body of a send-frames block.
#include <string>

namespace tdacli::listener {

// The body of a "[BEGIN_PROTOCOL]" ... "[END_PROTOCOL]" block; never fails.
std::string ExtractProtocolBody(const std::string& text);

}  // namespace tdacli::listener
