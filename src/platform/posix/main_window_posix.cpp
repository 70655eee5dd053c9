#include "platform/main_window.h"

namespace tdacli::platform {
namespace {

// No windowing system: the end of a session arrives as a signal, which the service host handles.
class NoWindow : public MainWindow {
 public:
  intptr_t Handle() const override { return 0; }
};

}  // namespace

std::unique_ptr<MainWindow> MakeMainWindow(std::function<bool()>) { return std::make_unique<NoWindow>(); }

}  // namespace tdacli::platform
