// A send-frames request comes from the network: extracting its job name must never fault, and the
// name is always a piece of the request.
#include <cstddef>
#include <cstdint>
#include <string>

#include "triggers/capture_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string request(reinterpret_cast<const char*>(data), size);
  const std::string job = tdacli::SendFramesJobName(request);
  if (job.size() > request.size()) __builtin_trap();
  if (!job.empty() && request.find(job) == std::string::npos) __builtin_trap();
  if (job.find('@') != std::string::npos) __builtin_trap();
  return 0;
}
