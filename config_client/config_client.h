// ConfigClient: the one client of the configuration daemon per request.
// It turns configuration operations into the daemon's request lines
// ("ls ", "put ", "apply", "save") over its own UdsConnection, which it
// opens (lock, connect and greeting) on construction and closes on
// destruction. How long it waits for the daemon, and what happens once
// nobody waits for the request: uds_connection.h.
//
// Every operation returns false when the exchange with the daemon failed;
// the daemon's answers themselves, error texts included, are never failures
// here. After a transport failure the client is spent: every later
// operation returns false without sending.
#ifndef TZR_CONFIG_CLIENT_CONFIG_CLIENT_H_
#define TZR_CONFIG_CLIENT_CONFIG_CLIENT_H_

#include <chrono>
#include <memory>
#include <string>

#include "config_client/parameter_map.h"
#include "config_client/uds_connection.h"

class ConfigClient {
 public:
  // Takes the lock in `lock` mode (daemon_lock.h); the default takes none. A read asks
  // Shared, a write Exclusive. `daemon`'s paths must outlive the client.
  explicit ConfigClient(const DaemonSetup& daemon, LockMode lock = LockMode::None);
  ~ConfigClient();

  ConfigClient(const ConfigClient&) = delete;
  ConfigClient& operator=(const ConfigClient&) = delete;

  bool isConnected() const;
  // Nobody waits for the request's reply any more: the web server gave up
  // while the client waited for its turn or for an answer. The client is
  // spent, the lock let go; the caller ends the request.
  bool abandoned() const;

  // "ls NAME". `value` receives the answer trimmed of white space at both
  // ends (also after a failure, when it keeps its previous contents). A name
  // the daemon does not hold answers "No such file or directory". A name
  // with a CR, LF or NUL is refused without a word to the daemon.
  bool get(const ParameterPath& name, std::string& value);

  // One "put NAME VALUE" per entry, in the set's order, stopping at the first
  // failed exchange. `replies` collects the untrimmed answers of every entry
  // sent. Entries already stored are not taken back. A set that cannot go out
  // as one line per entry (a CR, LF or NUL anywhere, white space in a name,
  // or the daemon's prompt "/> " in a value, which would cut every later
  // answer that carries it) is refused whole: nothing is sent and the
  // connection is closed.
  bool put(const ParameterMap& changes, std::string& replies);
  bool put(const ParameterPath& name, const std::string& value, std::string& reply);

  bool apply(std::string& reply);
  bool save(std::string& reply);

  // Lets the other requests have the lock (a write's, after its last put).
  void releaseLock();
  // From now on nobody waits for this process's replies: a detached child.
  void setUnattended(std::chrono::milliseconds limit);

  std::string statusText() const;

 private:
  std::unique_ptr<UdsConnection> connection_;
};

#endif  // TZR_CONFIG_CLIENT_CONFIG_CLIENT_H_
