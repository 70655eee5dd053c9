// The fleet run: up to `parallel` conversations at once on one loop, each a small state machine driven by
// its socket's events; time-outs are deadlines the run loop checks, so a host that trickles data is
// cut at its deadline whatever it sends.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

#include "fleet.h"
#include "platform/socket_api.h"
#include "shared/exchange.h"
#include "platform/tcp_socket.h"

namespace tdacli::explorer::fleet {

namespace {

constexpr std::string_view kReady = "|READY|";
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

// Keeps at most kMaxCellBytes of a value.
std::string Cell(std::string_view v) {
  if (v.size() <= kMaxCellBytes) return std::string(v);
  return std::string(v.substr(0, kMaxCellBytes - 3)) + "...";
}

// The names end with the NUL the system call left in the buffer; the console shows the name.
std::string Name(std::string_view v) {
  if (!v.empty() && v.back() == '\0') v.remove_suffix(1);
  return Cell(v);
}

constexpr std::string_view kInfoTags[] = {"<PCName>",         "<NETUsername>",        "<WinName>",
                                          "<Extension>",      "<TD Server>",          "<Notification Method>",
                                          "<Listening Ports>", "<Pop4Ext>",           "<Pop4Win>"};

bool StartsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }
// Whether `s` could still become a text starting with `prefix`.
bool CouldStartWith(std::string_view s, std::string_view prefix) {
  const size_t n = std::min(s.size(), prefix.size());
  return s.substr(0, n) == prefix.substr(0, n);
}

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

}  // namespace

const std::vector<SettingName>& SettingNames() {
  static const std::vector<SettingName> names = {
      {"ext", "|SETEXT|", "<Extension>", "ext"},
      {"server", "|SETSERVER|", "<TD Server>", "server"},
      {"notify", "|SETNOTIFY|", "<Notification Method>", "notification_method"},
      {"listen", "|SETLISTEN|", "<Listening Ports>", "listening_ports"},
      {"pop4ext", "|SETPOP4EXT|", "<Pop4Ext>", "pop4ext"},
      {"pop4win", "|SETPOP4WIN|", "<Pop4Win>", "pop4win"},
  };
  return names;
}

const SettingName* FindSetting(std::string_view word) {
  for (const SettingName& s : SettingNames())
    if (s.word == word) return &s;
  return nullptr;
}

const std::string* Info::Column(std::string_view column) const {
  if (column == "ext") return &ext;
  if (column == "server") return &server;
  if (column == "notification_method") return &notification_method;
  if (column == "listening_ports") return &listening_ports;
  if (column == "pop4ext") return &pop4ext;
  if (column == "pop4win") return &pop4win;
  return nullptr;
}

std::optional<Info> ParseInfo(std::string_view reply) {
  constexpr std::string_view kHead = "|GETINFO|";
  if (!StartsWith(reply, kHead) || reply.empty() || reply.back() != ';') return std::nullopt;
  size_t at[std::size(kInfoTags)];
  size_t from = kHead.size();
  for (size_t i = 0; i < std::size(kInfoTags); ++i) {
    const size_t p = reply.find(kInfoTags[i], from);
    if (p == std::string_view::npos) return std::nullopt;
    at[i] = p;
    from = p + kInfoTags[i].size();
  }
  std::string_view v[std::size(kInfoTags)];
  for (size_t i = 0; i < std::size(kInfoTags); ++i) {
    const size_t begin = at[i] + kInfoTags[i].size();
    size_t end = i + 1 < std::size(kInfoTags) ? at[i + 1] : reply.size();
    // Every value but the two names ends with ";"; the names end where the next ";<tag>" begins.
    if (end > begin && reply[end - 1] == ';') --end;
    v[i] = reply.substr(begin, end - begin);
  }
  Info info;
  info.computer = Name(v[0]);
  info.network_user = Name(v[1]);
  info.current_user = Cell(v[2]);
  info.ext = Cell(v[3]);
  info.server = Cell(v[4]);
  info.notification_method = Cell(v[5]);
  info.listening_ports = Cell(v[6]);
  info.pop4ext = Cell(v[7]);
  info.pop4win = Cell(v[8]);
  return info;
}

std::vector<Component> ParseComponents(std::string_view reply) {
  constexpr std::string_view kHead = "|GETVER|<Status>";
  constexpr std::string_view kBreak = "{CRLF}";
  std::vector<Component> out;
  if (!StartsWith(reply, kHead)) return out;
  reply.remove_prefix(kHead.size());
  while (!reply.empty() && out.size() < kMaxComponents) {
    const size_t br = reply.find(kBreak);
    std::string_view line = reply.substr(0, br);
    reply.remove_prefix(br == std::string_view::npos ? reply.size() : br + kBreak.size());
    // The components end where the settings begin (one component, the FTP library, stands after the
    // separator line).
    if (StartsWith(line, "TD Server:")) break;
    if (StartsWith(line, " - - -") || StartsWith(line, "Agent Client Components Information:") ||
        StartsWith(line, "Component name "))
      continue;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) continue;
    Component c;
    c.name = Cell(TrimBlanks(line.substr(0, colon)));
    std::string_view rest = TrimBlanks(line.substr(colon + 1));
    // "<version>,[date=...],[time=...],[size=...]", on service rows followed by five blanks, the
    // state, five blanks and the account.
    const size_t date = rest.find(",[date=");
    if (date == std::string_view::npos) {
      c.version = Cell(rest);
    } else {
      c.version = Cell(rest.substr(0, date));
      const size_t size_end = rest.find(']', rest.find("[size=", date));
      if (size_end != std::string_view::npos) {
        std::string_view after = rest.substr(size_end + 1);
        if (StartsWith(after, "     ")) {
          after.remove_prefix(5);
          c.state = Cell(TrimBlanks(after.substr(0, after.find("     "))));
        }
      }
    }
    if (c.name.empty()) continue;
    out.push_back(std::move(c));
  }
  return out;
}

namespace {

// One host's conversation.
class Conversation {
 public:
  Conversation(platform::EventLoop& loop, const Options& o, HostResult& out, size_t& finished)
      : loop_(loop), o_(o), out_(out), finished_(finished), socket_(loop),
        timeout_ms_(static_cast<int64_t>(std::llround(o.timeout_seconds * 1000))) {
    socket_.on_connect = [this] { connected_ = true; };
    socket_.on_data_arrival = [this](size_t) { Arrived(socket_.GetData()); };
    socket_.on_close = [this] {
      if (closing_) return Let();
      std::string rest = socket_.GetData();
      if (!rest.empty()) Arrived(std::move(rest));
      if (!done_) PeerClosed();
    };
    socket_.on_error = [this](int number, const std::string& description) {
      if (closing_) return Let();
      Failed(number, description);
    };
  }

  void Start() {
    stage_deadline_ = Now() + timeout_ms_;
    socket_.SetRemoteHost(out_.host.name);
    socket_.SetRemotePort(out_.host.port);
    if (platform::SocketError e = socket_.Connect()) Failed(e.number, e.description);
  }

  // The result is final and the connection let go: the conversation's place is free.
  bool released() const { return done_ && !closing_; }
  int64_t Deadline() const { return closing_ ? close_deadline_ : done_ ? kNever : stage_deadline_; }

  // The loop passed this conversation's deadline: whatever came so far, the stage did not finish; or
  // the agent did not close in return in time, and the connection goes anyway.
  void Expire() {
    if (closing_ && Now() >= close_deadline_) return Let();
    if (done_ || Now() < stage_deadline_) return;
    if (step_ == Step::kSet) sets_failed_reason_ = "no reply";
    Finish("timeout");
  }

 private:
  enum class Step { kGreeting, kGetInfo, kGetVer, kSet };

  int64_t Now() const { return loop_.clock().NowMs(); }

  void Finish(std::string state) {
    if (done_) return;
    done_ = true;
    out_.state = std::move(state);
    out_.finished_ms = Now();
    // SETs without an answer when the conversation ended were not confirmed: the one in hand failed
    // for the conversation's reason, the later ones were never sent.
    for (size_t k = 0; k < pending_sets_.size(); ++k) {
      SetResult& r = out_.sets[pending_sets_[k]];
      if (!r.result.empty()) continue;
      const bool in_hand = k + 1 == set_next_ && !sets_failed_reason_.empty();
      r.result = "failed: " + (in_hand ? sets_failed_reason_ : std::string("not sent"));
    }
    ++finished_;
    // An agent that answered everything is given the chance to take in the console's departure before
    // the next connection to it (kAgentCloseWaitMs); any other peer is simply closed.
    if (out_.state == "ok" && socket_.State() == platform::TcpSocket::kConnected) {
      closing_ = true;
      close_deadline_ = Now() + kAgentCloseWaitMs;
      socket_.ShutdownSend();
      return;
    }
    socket_.Close();
  }

  // Lets the connection go after the console's orderly departure.
  void Let() {
    closing_ = false;
    socket_.Close();
    ++finished_;
  }

  void Failed(int number, const std::string& description) {
    if (done_) return;
    if (!connected_) {
      if (number == platform::sockapi::kConnRefused) return Finish("refused");
      if (number == platform::sockapi::kHostNotFound) return Finish("error: host not found");
      return Finish("error: " + description + " (" + std::to_string(number) + ")");
    }
    if (step_ == Step::kGreeting && number == platform::sockapi::kConnReset) return Finish("closed");
    sets_failed_reason_ = description;
    Finish("error: " + description + " (" + std::to_string(number) + ")");
  }

  void PeerClosed() {
    if (step_ == Step::kGreeting) return Finish("closed");
    sets_failed_reason_ = "connection closed";
    Finish("error: connection closed before the reply");
  }

  void Arrived(std::string data) {
    if (done_) return;
    if (buffer_.size() + data.size() > kMaxReplyBytes) {
      sets_failed_reason_ = "reply too long";
      return Finish("error: reply too long");
    }
    buffer_ += data;
    if (step_ == Step::kGreeting) {
      if (!CouldStartWith(buffer_, kReady)) return Finish("not-an-agent");
      if (buffer_.size() < kReady.size()) return;
      buffer_.erase(0, kReady.size());
      return Send(Step::kGetInfo, "|GETINFO|");
    }
    Examine();
  }

  void Send(Step step, const std::string& command) {
    step_ = step;
    stage_deadline_ = Now() + timeout_ms_;
    sent_at_ = Now();
    if (platform::SocketError e = socket_.SendData(command)) return Failed(e.number, e.description);
    if (!buffer_.empty()) Examine();
  }

  // A reply has arrived in part or whole: go on when it is complete, give up when it cannot be one;
  // otherwise wait for more until the stage's deadline (a reply has no terminator, but each command's
  // reply ends in a known way).
  void Examine() {
    if (buffer_.empty()) return;
    switch (step_) {
      case Step::kGetInfo:
        if (!CouldStartWith(buffer_, "|GETINFO|")) return Finish("error: unexpected reply");
        if (auto info = ParseInfo(buffer_)) return GotInfo(std::move(*info));
        break;
      case Step::kGetVer:
        if (!CouldStartWith(buffer_, "|GETVER|<Status>")) return Finish("error: unexpected reply");
        if (ReportComplete()) return GotReport();
        break;
      case Step::kSet: {
        const SettingName& s = *o_.values[pending_sets_[set_next_ - 1]].setting;
        const std::string head = std::string(s.keyword) + std::string(s.tag);
        if (!CouldStartWith(buffer_, s.keyword)) return GotSetAnswer();
        if (StartsWith(buffer_, head) && buffer_.find(';', head.size()) != std::string::npos) return GotSetAnswer();
        break;
      }
      case Step::kGreeting:
        return;
    }
  }

  bool ReportComplete() const {
    // The report ends with its last FTP line.
    const size_t last = buffer_.rfind("{CRLF}FTP PassiveUseHostAddr: ");
    return last != std::string::npos && buffer_.size() >= 6 && buffer_.compare(buffer_.size() - 6, 6, "{CRLF}") == 0 &&
           buffer_.size() - 6 > last;
  }

  void GotInfo(Info info) {
    out_.rtt_ms = Now() - sent_at_;
    out_.has_info = true;
    out_.info = std::move(info);
    buffer_.clear();
    switch (o_.command) {
      case Command::kGetInfo:
        return Finish("ok");
      case Command::kGetVer:
        return Send(Step::kGetVer, "|GETVER|");
      case Command::kSet:
        for (size_t i = 0; i < o_.values.size(); ++i) {
          const NewValue& v = o_.values[i];
          SetResult& r = out_.sets[i];
          const std::string* current = out_.info.Column(v.setting->column);
          r.current = current ? *current : std::string();
          if (current && *current == v.value) {
            r.result = "unchanged";
          } else {
            r.result = o_.apply ? "" : "would change";
            if (o_.apply) pending_sets_.push_back(i);
          }
        }
        return NextSet();
    }
  }

  void GotReport() {
    out_.components = ParseComponents(buffer_);
    buffer_.clear();
    Finish("ok");
  }

  void NextSet() {
    if (set_next_ == pending_sets_.size()) return Finish("ok");
    const NewValue& v = o_.values[pending_sets_[set_next_++]];
    Send(Step::kSet, std::string(v.setting->keyword) + v.value + ";");
  }

  // The agent answers a SET with the value stored after it: the new one, or the old one when the save
  // failed.
  void GotSetAnswer() {
    const NewValue& v = o_.values[pending_sets_[set_next_ - 1]];
    SetResult& r = out_.sets[pending_sets_[set_next_ - 1]];
    const std::string expected = std::string(v.setting->keyword) + std::string(v.setting->tag) + v.value + ";";
    r.result = buffer_ == expected ? "changed" : "failed: " + Cell(buffer_);
    buffer_.clear();
    NextSet();
  }

  platform::EventLoop& loop_;
  const Options& o_;
  HostResult& out_;
  size_t& finished_;
  platform::TcpSocket socket_;
  const int64_t timeout_ms_;
  Step step_ = Step::kGreeting;
  bool connected_ = false, done_ = false, closing_ = false;
  std::string buffer_;
  int64_t stage_deadline_ = kNever, sent_at_ = 0, close_deadline_ = kNever;
  std::vector<size_t> pending_sets_;  // indexes into o_.values of the SETs to send
  size_t set_next_ = 0;               // pending_sets_[set_next_ - 1] is in hand
  std::string sets_failed_reason_;
};

}  // namespace

std::vector<HostResult> Run(platform::EventLoop& loop, const Options& o,
                            const std::function<void(const Progress&)>& progress, int progress_every_ms) {
  std::vector<HostResult> results(o.hosts.size());
  for (size_t i = 0; i < o.hosts.size(); ++i) {
    results[i].host = o.hosts[i];
    results[i].sets.resize(o.command == Command::kSet ? o.values.size() : 0);
  }
  const size_t parallel = static_cast<size_t>(std::clamp(o.parallel, 1, kMaxParallel));
  const int64_t started = loop.clock().NowMs();
  size_t next = 0, finished = 0, seen = 0;
  Progress p;
  p.total = results.size();
  int64_t next_progress = progress ? started + progress_every_ms : kNever;
  auto report = [&] {
    p.elapsed_ms = loop.clock().NowMs() - started;
    progress(p);
    next_progress = loop.clock().NowMs() + progress_every_ms;
  };

  struct Slot {
    size_t index;
    std::unique_ptr<Conversation> c;
  };
  std::vector<Slot> active;
  active.reserve(parallel);
  while (next < results.size() || !active.empty()) {
    while (active.size() < parallel && next < results.size()) {
      active.push_back({next, std::make_unique<Conversation>(loop, o, results[next], finished)});
      ++next;
      active.back().c->Start();
    }
    int64_t deadline = next_progress;
    for (const Slot& s : active) deadline = std::min(deadline, s.c->Deadline());
    if (finished == seen) loop.RunUntil(deadline, [&] { return finished != seen; });
    const int64_t now = loop.clock().NowMs();
    for (Slot& s : active)
      if (s.c->Deadline() <= now) s.c->Expire();
    seen = finished;
    // Finished conversations give their place to the next hosts (their sockets are closed already).
    size_t kept = 0;
    for (Slot& s : active) {
      if (s.c->released()) {
        ++p.done;
        if (results[s.index].state != "ok") ++p.failed;
        continue;
      }
      active[kept++] = std::move(s);
    }
    const bool any_done = kept != active.size();
    active.resize(kept);
    if (progress && (any_done || now >= next_progress)) report();
  }
  return results;
}

}  // namespace tdacli::explorer::fleet
