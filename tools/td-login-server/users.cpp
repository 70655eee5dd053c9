#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>

#include "login_server.h"

namespace tdacli::loginsim {

namespace {

std::string LowerCase(std::string_view s) {
  std::string r(s);
  std::transform(r.begin(), r.end(), r.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return r;
}

std::vector<std::string> TextLines(std::string_view text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '\n') {
      std::string line(text.substr(start, i - start));
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (i < text.size() || !line.empty()) lines.push_back(std::move(line));
      start = i + 1;
    }
  }
  return lines;
}

}  // namespace

bool UserTable::Parse(std::string_view text, std::string& error) {
  std::map<std::string, UserRecord> users;
  UserRecord* current = nullptr;
  int number = 0;
  for (const std::string& line : TextLines(text)) {
    ++number;
    const std::string where = "line " + std::to_string(number) + ": ";
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      if (line.size() < 3 || line.back() != ']') {
        error = where + "a user section reads [WindowsName]";
        return false;
      }
      UserRecord user;
      user.name = line.substr(1, line.size() - 2);
      const std::string key = LowerCase(user.name);
      if (users.count(key)) {
        error = where + "user " + user.name + " is listed twice";
        return false;
      }
      current = &(users[key] = std::move(user));
      continue;
    }
    const size_t eq = line.find('=');
    if (eq == std::string::npos) {
      error = where + "expected Key=Value";
      return false;
    }
    if (!current) {
      error = where + "a value before the first [WindowsName]";
      return false;
    }
    const std::string key = LowerCase(line.substr(0, eq));
    std::string value = line.substr(eq + 1);
    if (key == "servertemp") current->server_temp = value;
    else if (key == "localtemp") current->local_temp = value;
    else if (key == "liveid") current->live_id = value;
    else if (key == "kekinfo") current->kek_info = value;
    else if (key == "validipmask") current->valid_ip_mask = value;
    else if (key == "trace") current->trace = value;
    else if (key == "webcam") current->webcam = value;
    else if (key == "100screen") current->hundred_screen = value;
    else if (key == "listenports") current->listen_ports = value;
    else if (key == "phonehome") current->phone_home = value;
    else {
      error = where + "unknown key " + line.substr(0, eq);
      return false;
    }
  }
  users_ = std::move(users);
  return true;
}

bool UserTable::Load(const std::string& path, std::string& error) {
  std::ifstream f(path, std::ios::binary);
  if (!f) {
    error = "cannot read " + path;
    return false;
  }
  const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  return Parse(text, error);
}

void UserTable::Add(UserRecord user) {
  const std::string key = LowerCase(user.name);
  users_[key] = std::move(user);
}

const UserRecord* UserTable::Find(std::string_view windows_name) const {
  auto it = users_.find(LowerCase(windows_name));
  return it == users_.end() ? nullptr : &it->second;
}

}  // namespace tdacli::loginsim
