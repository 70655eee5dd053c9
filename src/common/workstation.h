#pragma once
// What the common helpers need of their owner beyond logging: the host's identity facility and the
// values read from it, a wait that lets events run, and the test seam for deletions.
#include <array>
#include <functional>
#include <string>

#include "common/logging.h"
#include "platform/host_identity.h"

namespace tdacli {

class Workstation : public LogSink {
 public:
  std::array<std::string, 8> computer_names;
  int os_code = 99;
  // Test seam: a folder that accepts files but refuses their deletion.
  std::function<bool(const std::string& path)> refuse_delete;

  virtual platform::HostIdentity& host() = 0;
  virtual void WaitSeconds(double seconds) = 0;
  void EnsureLocalIP() override;

 protected:
  ~Workstation() = default;
};

}  // namespace tdacli
