// A client::Client connected to the in-process test server on real loopback sockets, and
// the pieces for cases that play the server's side of the handshake themselves.
#pragma once

#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Messages.h"
#include "client/Client.h"
#include "server/TestServer.h"

namespace testlib {

struct SessionOptions {
  std::string host = "127.0.0.1";
  std::string token = "token";
  std::string password;
  wire::Welcome welcome = DefaultWelcome();
  bool startReceiving = true;
};

// Connects a client (the server reads the hello and answers the welcome), then by default
// starts the receiving thread. The test thread plays the game thread. The barriers below
// send a message to the mod TEST_probe after the bytes: messages are carried out in order.
class Session {
 public:
  explicit Session(SessionOptions options = {});
  ~Session();

  client::Client& Client() { return *client; }
  testserver::TestConnection& Connection() { return *connection; }

  void StartReceiving();
  // Clears Game::isActive and joins; `wake` sends a byte so the thread sees it at once.
  void StopReceiving(bool wake = true);
  // Sends `bytes` on TCP; returns once they were carried out.
  void SendReliable(const Bytes& bytes);
  // Makes the client send a datagram and records its address (needed by SendDatagram).
  void LearnDatagramAddress();
  // Sends `bytes` as a datagram; returns once it was taken in or dropped.
  void SendDatagram(const Bytes& bytes);
  // The next datagram from the client; throws when none arrives in time.
  Bytes NextDatagram();
  bool NoMoreDatagrams() { return !server.NextDatagram(200).has_value(); }

  testserver::TestServer server;
  std::unique_ptr<testserver::TestConnection> connection;
  std::unique_ptr<client::Client> client;
  std::string clientAddress;
  uint16_t clientPort = 0;

 private:
  std::thread receiving_;
  size_t probesSent_ = 0;
};

// Runs the client's constructor on a helper thread while the test plays the server; get()
// returns the client or rethrows the constructor's exception.
std::future<std::unique_ptr<client::Client>> Connect(uint16_t port, std::string token = "token",
                                                     std::string password = "",
                                                     std::string host = "127.0.0.1");

// Constructs a client against a server that answers the hello with `reply` (empty:
// silence; `close`: then closes) and returns the constructor's exception text, "" if built.
std::string ConstructionError(const Bytes& reply, bool close = false);

}  // namespace testlib
