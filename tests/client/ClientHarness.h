// A connected client::Client against the in-process test server, on real loopback
// sockets, for tests that check exact bytes in and the state that comes out.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/Client.h"
#include "orvex/filesystem/Stream.h"
#include "server/TestServer.h"
#include "server/Wire.h"

namespace clienttest {

using Bytes = std::vector<uint8_t>;

using wire::Encode;

// A welcome with one player, no mods, mode 3 and a short configuration text.
wire::Welcome DefaultWelcome();

// The test mod "TEST_probe": its message handler records each payload and wakes waiters.
// Messages are carried out in order, so when a probe sent after some messages arrives,
// those messages have been carried out: tests use it as a barrier on both channels.
class Probe {
 public:
  static constexpr const char* kName = "TEST_probe";
  // Loads the mod (once per process; safe to call again).
  static void Install();
  static size_t Count();
  // Waits until `count` probes arrived in total; false on time-out.
  static bool WaitFor(size_t count, int timeoutMs = 10000);
  static std::vector<Bytes> Payloads();
};

struct SessionOptions {
  std::string host = "127.0.0.1";
  std::string token = "token";
  std::string password;
  wire::Welcome welcome = DefaultWelcome();
  bool startReceiving = true;
  bool installProbe = true;
};

// Builds the server, constructs the client on a helper thread while the server accepts,
// reads the hello and sends the welcome, then (by default) starts the receiving thread.
// The test thread plays the game thread: it calls Send() and Game::RunSynchronized().
class Session {
 public:
  explicit Session(SessionOptions options = {});
  ~Session();

  client::Client& Client() { return *client; }
  testserver::TestConnection& Connection() { return *connection; }

  void StartReceiving();
  // Clears Game::isActive and joins the receiving thread. With `wake`, the server also
  // sends a keep-alive byte (which the client ignores) so that the thread sees the stop at
  // once instead of at the end of its 500 ms poll.
  void StopReceiving(bool wake = true);

  // Sends `bytes` on TCP, then a probe; waits until the probe was delivered.
  void SendReliable(const Bytes& bytes);
  // Makes the client send a datagram (a Send() with nothing queued sends a keep-alive) and
  // records the client's datagram address from it. Needed before SendDatagram.
  void LearnDatagramAddress();
  // Sends `bytes` from the server's datagram socket, then a probe datagram; waits until the
  // probe was delivered (the datagrams before it have been taken in).
  void SendDatagram(const Bytes& bytes);
  // Runs the work the client queued for the game thread.
  size_t RunGameThread();

  testserver::TestServer server;
  std::unique_ptr<testserver::TestConnection> connection;
  std::unique_ptr<client::Client> client;
  wire::Hello hello;
  std::string clientAddress;
  uint16_t clientPort = 0;

 private:
  std::thread receiving_;
  size_t probesSent_ = 0;
};

// Runs the client's constructor on a helper thread, so that the test can play the server's
// side of the handshake itself (read the raw hello, answer, or stay silent). The
// destructor waits for the constructor to end.
class Connecting {
 public:
  Connecting(uint16_t port, std::string token = "token", std::string password = "",
             std::string host = "127.0.0.1");
  ~Connecting();
  Connecting(const Connecting&) = delete;
  Connecting& operator=(const Connecting&) = delete;

  // Waits for the constructor; returns the client, or rethrows the constructor's exception.
  std::unique_ptr<client::Client> Finish();

 private:
  // Written by the helper thread, which starts last.
  std::unique_ptr<client::Client> client_;
  std::exception_ptr failure_;
  std::thread thread_;
};

// Runs a client constructor against a server that answers the hello with `reply` (raw
// bytes; empty: silence) and returns the constructor's exception text ("" if it built).
std::string ConstructionError(const Bytes& reply, const std::string& token = "token",
                              const std::string& password = "");

}  // namespace clienttest
