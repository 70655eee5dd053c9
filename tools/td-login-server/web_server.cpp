#include "web_server.h"

#include <httplib.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>

namespace tdacli::loginsim {

namespace {

constexpr std::string_view kLoginPath = "/TDLoginWebService/TDLoginWebService.asmx/";
constexpr std::string_view kFramePath = "/TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/";

std::string Lower(std::string_view s) {
  std::string r(s);
  std::transform(r.begin(), r.end(), r.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return r;
}

// A "|" separates the reply's fields; inside a value it travels as "_" (the agent turns it back).
std::string Underscored(std::string s) {
  std::replace(s.begin(), s.end(), '|', '_');
  return s;
}

// ---- test certificates

struct Pki {
  EVP_PKEY* key = nullptr;
  X509* cert = nullptr;
  ~Pki() {
    if (cert) X509_free(cert);
    if (key) EVP_PKEY_free(key);
  }
};

bool AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (!ext) return false;
  const bool ok = X509_add_ext(cert, ext, -1) == 1;
  X509_EXTENSION_free(ext);
  return ok;
}

// A P-256 key and a certificate for it, signed by `issuer` (self-signed when null).
bool MakeCertificate(Pki& out, const char* common_name, bool ca, const Pki* issuer, long serial) {
  out.key = EVP_EC_gen("P-256");
  out.cert = X509_new();
  if (!out.key || !out.cert) return false;
  X509_set_version(out.cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(out.cert), serial);
  X509_gmtime_adj(X509_getm_notBefore(out.cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(out.cert), 7L * 24 * 3600);
  X509_set_pubkey(out.cert, out.key);
  X509_NAME* name = X509_get_subject_name(out.cert);
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("td-login-server test"),
                             -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
  X509* signer = issuer ? issuer->cert : out.cert;
  X509_set_issuer_name(out.cert, X509_get_subject_name(signer));
  bool ok = true;
  if (ca) {
    ok = AddExtension(out.cert, signer, NID_basic_constraints, "critical,CA:TRUE") &&
         AddExtension(out.cert, signer, NID_key_usage, "critical,keyCertSign,cRLSign") &&
         AddExtension(out.cert, signer, NID_subject_key_identifier, "hash");
  } else {
    ok = AddExtension(out.cert, signer, NID_basic_constraints, "critical,CA:FALSE") &&
         AddExtension(out.cert, signer, NID_key_usage, "critical,digitalSignature,keyEncipherment") &&
         AddExtension(out.cert, signer, NID_ext_key_usage, "serverAuth") &&
         AddExtension(out.cert, signer, NID_subject_alt_name, "IP:127.0.0.1,IP:::1,DNS:localhost");
    if (issuer) ok = ok && AddExtension(out.cert, signer, NID_authority_key_identifier, "keyid:always");
  }
  return ok && X509_sign(out.cert, issuer ? issuer->key : out.key, EVP_sha256()) > 0;
}

bool WritePem(const std::string& path, const std::function<int(FILE*)>& write) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = write(f) == 1;
  return std::fclose(f) == 0 && ok;
}

std::string Sep(const std::string& folder) {
  return folder.empty() || folder.back() == '/' ? folder : folder + "/";
}

}  // namespace

bool ParseWebFault(std::string_view text, WebOptions& options) {
  if (text == "404") options.fault = WebFault::kNotFound;
  else if (text == "empty") options.fault = WebFault::kEmpty;
  else if (text == "error") options.fault = WebFault::kError;
  else if (text == "untrusted") options.fault = WebFault::kUntrusted;
  else if (text == "oversize") options.fault = WebFault::kOversize;
  else if (text == "slow") {
    options.fault = WebFault::kDelay;
    options.delay_ms = 15000;
  } else if (text.substr(0, 6) == "delay=" && text.size() > 6 && text.size() < 15) {
    int ms = 0;
    for (char c : text.substr(6)) {
      if (c < '0' || c > '9') return false;
      ms = ms * 10 + (c - '0');
    }
    options.fault = WebFault::kDelay;
    options.delay_ms = ms;
  } else {
    return false;
  }
  return true;
}

std::string XmlStringResult(std::string_view text) {
  std::string escaped;
  for (char c : text) {
    if (c == '&') escaped += "&amp;";
    else if (c == '<') escaped += "&lt;";
    else if (c == '>') escaped += "&gt;";
    else escaped += c;
  }
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<string xmlns=\"http://tempuri.org/\">" + escaped +
         "</string>";
}

std::string LoginReply(const UserRecord& u) {
  std::string r = "SUCCESS|SERVERTEMP=" + Underscored(u.server_temp) + "|LOCALTEMP=" + Underscored(u.local_temp) +
                  "|USETRACE=" + Underscored(u.trace);
  if (u.webcam) r += "|WEBCAM=" + Underscored(*u.webcam);
  if (u.hundred_screen) r += "|SCREEN100=" + Underscored(*u.hundred_screen);
  if (u.phone_home) r += "|PHONEHOME=" + Underscored(*u.phone_home);
  r += "|IPMASK=" + Underscored(u.valid_ip_mask) + "|KEKINFO=" + Underscored(u.kek_info) +
       "|TDLIVEID=" + Underscored(u.live_id);
  return r;
}

bool MakeTestPki(const std::string& folder, std::string& error) {
  Pki ca, server;
  if (!MakeCertificate(ca, "td-login-server test CA", true, nullptr, 1) ||
      !MakeCertificate(server, "localhost", false, &ca, 2)) {
    error = "cannot make the test certificates";
    return false;
  }
  const std::string dir = Sep(folder);
  if (!WritePem(dir + "ca.pem", [&](FILE* f) { return PEM_write_X509(f, ca.cert); }) ||
      !WritePem(dir + "server.pem", [&](FILE* f) { return PEM_write_X509(f, server.cert); }) ||
      !WritePem(dir + "server.key",
                [&](FILE* f) { return PEM_write_PrivateKey(f, server.key, nullptr, nullptr, 0, nullptr, nullptr); })) {
    error = "cannot write the test certificates into " + folder;
    return false;
  }
  return true;
}

WebLoginServer::WebLoginServer(UserTable users, WebOptions options)
    : users_(std::move(users)), options_(std::move(options)) {}

WebLoginServer::~WebLoginServer() { Stop(); }

std::string WebLoginServer::BaseUrl() const {
  return (options_.https ? "https://" : "http://") + options_.address + ":" + std::to_string(port_);
}

bool WebLoginServer::Start(std::string& error) {
  if (!options_.https) {
    server_ = std::make_unique<httplib::Server>();
  } else if (options_.fault == WebFault::kUntrusted) {
    Pki self;
    if (!MakeCertificate(self, "localhost", false, nullptr, 7)) {
      error = "cannot make the untrusted certificate";
      return false;
    }
    server_ = std::make_unique<httplib::SSLServer>(self.cert, self.key);
  } else {
    server_ = std::make_unique<httplib::SSLServer>(options_.cert_file.c_str(), options_.key_file.c_str());
  }
  if (!server_->is_valid()) {
    error = "cannot use the certificate " + options_.cert_file + " with the key " + options_.key_file;
    return false;
  }
  server_->set_keep_alive_max_count(1);
  server_->set_tcp_nodelay(true);  // replies leave at once, as from a real server
  server_->Get(".*", [this](const httplib::Request& req, httplib::Response& res) {
    int n;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      n = ++requests_seen_;
      requests_.push_back(req.target);
    }
    std::string tag = "[";
    tag += std::to_string(n);
    tag += "] ";
    Record(tag + "-- request from " + req.remote_addr);
    Record(tag + "C> GET " + EscapeBytes(req.target));
    std::map<std::string, std::string> query;
    for (const auto& [k, v] : req.params) query.emplace(k, v);
    const Reply reply = Answer(req.path, query);
    if (options_.fault == WebFault::kDelay && !Wait(options_.delay_ms)) {
      Record(tag + "-- stopped before answering");
      return;
    }
    res.status = reply.status;
    res.set_content(reply.body, "text/xml; charset=utf-8");
    Record(tag + "S> " + std::to_string(reply.status) + " " + EscapeBytes(reply.body));
  });
  if (options_.port == 0) {
    port_ = server_->bind_to_any_port(options_.address);
  } else {
    port_ = server_->bind_to_port(options_.address, options_.port) ? options_.port : -1;
  }
  if (port_ <= 0) {
    error = "cannot listen on " + options_.address + ":" + std::to_string(options_.port);
    return false;
  }
  Record("[0] -- listening on " + BaseUrl());
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // A stop() that comes before the server runs would be lost (and the join would wait for ever): hand
  // the server out only once it runs.
  for (int i = 0; i < 5000 && !server_->is_running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

void WebLoginServer::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  stopped_cv_.notify_all();
  if (server_) server_->stop();
  if (thread_.joinable()) thread_.join();
}

bool WebLoginServer::Wait(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !stopped_cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping_; });
}

void WebLoginServer::QueueGrabberTask(const std::string& machine, const std::string& task) {
  std::lock_guard<std::mutex> lock(mutex_);
  tasks_[Lower(machine)].push_back(task);
}

WebLoginServer::Reply WebLoginServer::Answer(const std::string& path,
                                             const std::map<std::string, std::string>& query) {
  auto param = [&](const char* name) {
    auto it = query.find(name);
    return it == query.end() ? std::string() : it->second;
  };
  switch (options_.fault) {
    case WebFault::kNotFound:
      return {404, "<html><body><h1>HTTP 404 Not Found</h1></body></html>"};
    case WebFault::kEmpty:
      return {200, ""};
    case WebFault::kError:
      return {200, XmlStringResult("ERROR|Simulated failure")};
    case WebFault::kOversize:
      return {200, XmlStringResult("SUCCESS|" + std::string(100 * 1024, 'x'))};
    default:
      break;
  }
  if (path.compare(0, kLoginPath.size(), kLoginPath) == 0) {
    const std::string method = path.substr(kLoginPath.size());
    const UserRecord* user = users_.Find(param("WinName"));
    if (method == "LoginMethod")
      return {200, XmlStringResult(user ? LoginReply(*user) : "ERROR|NoMatchingWinName")};
    if (method == "LogOffMethod") return {200, XmlStringResult(user ? "SUCCESS|" : "ERROR|NoMatchingWinName")};
    if (method == "StatusMethod") return {200, XmlStringResult("SUCCESS|")};
  } else if (path == std::string(kFramePath) + "GrabberMethod") {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& queue = tasks_[Lower(param("Machine"))];
    if (queue.empty()) return {200, XmlStringResult("SUCCESS|NONE")};
    const std::string task = queue.front();
    queue.pop_front();
    return {200, XmlStringResult("SUCCESS|SENDFRAMES|" + task)};
  }
  return {404, "<html><body><h1>HTTP 404 Not Found</h1></body></html>"};
}

void WebLoginServer::Record(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  transcript_.push_back(line);
  if (on_line) on_line(line);
}

std::vector<std::string> WebLoginServer::TranscriptLines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return transcript_;
}

std::vector<std::string> WebLoginServer::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

}  // namespace tdacli::loginsim
