#include "config_client/config_client.h"

#include <ctype.h>

#include <algorithm>

namespace {

void trimRight(std::string& text) {
  size_t end = text.size();
  while (end > 0 && isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  text.erase(end);
}

void trimLeft(std::string& text) {
  size_t begin = 0;
  while (begin < text.size() && isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  text.erase(0, begin);
}

void trim(std::string& text) {
  trimRight(text);
  trimLeft(text);
}

// The daemon's protocol has no quoting: a CR, LF or NUL inside a name or
// value would end the request early and let the rest pass as commands of its
// own. Such requests are never sent.
bool framable(const std::string& text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

// The daemon takes a put's value from the first blank after the name on, so
// a name with white space would store another name's value, or a value of
// its own choosing, unquoted. A stored prompt would end every later answer
// that carries it early, and shift the dialogue when it arrives in pieces.
bool writable(const ParameterPath& name, const std::string& value) {
  return framable(name) && framable(value) && name.find_first_of(" \t\v\f") == std::string::npos &&
         value.find("/> ") == std::string::npos;
}

std::string putRequest(const ParameterPath& name, const std::string& value) {
  return "put " + name + " " + value;
}

}  // namespace

ConfigClient::ConfigClient(const DaemonSetup& daemon, LockMode lock)
    : connection_(new UdsConnection(daemon, lock)) {}

ConfigClient::~ConfigClient() = default;

bool ConfigClient::isConnected() const { return connection_ && connection_->isOpen(); }

bool ConfigClient::abandoned() const {
  return connection_ && connection_->status() == UdsStatus::Abandoned;
}

bool ConfigClient::get(const ParameterPath& name, std::string& value) {
  if (!connection_ || !framable(name)) return false;
  bool ok = connection_->execute("ls " + name, value);
  trim(value);
  return ok;
}

bool ConfigClient::put(const ParameterMap& changes, std::string& replies) {
  if (!connection_) return false;
  replies.clear();
  for (const auto& [name, value] : changes) {
    if (!writable(name, value)) {
      // Refuse the whole batch before anything reaches the daemon, and end
      // the dialogue as a failed write would.
      connection_->close();
      return false;
    }
  }
  for (const auto& [name, value] : changes) {
    std::string reply;
    bool ok = connection_->execute(putRequest(name, value), reply);
    replies += reply;
    if (!ok) return false;
  }
  return true;
}

bool ConfigClient::put(const ParameterPath& name, const std::string& value, std::string& reply) {
  if (!connection_ || !writable(name, value)) return false;
  return connection_->execute(putRequest(name, value), reply);
}

bool ConfigClient::apply(std::string& reply) {
  if (!connection_) return false;
  return connection_->execute("apply", reply);
}

bool ConfigClient::save(std::string& reply) {
  if (!connection_) return false;
  return connection_->execute("save", reply);
}

void ConfigClient::releaseLock() {
  if (connection_) connection_->releaseLock();
}

void ConfigClient::setUnattended(std::chrono::milliseconds limit) {
  if (connection_) connection_->setUnattended(limit);
}

std::string ConfigClient::statusText() const {
  return connection_ ? connection_->statusText() : "No socket";
}
