// The reference game server: handshake, a moving scene streamed to every client, module
// message echo, entity action log, silence time-out. Runs in-process for tests and tools,
// and behind the game-server command line.
//
// Threads: one accept thread, one thread per connection (handshake, then its TCP reads),
// one simulation thread (scene, broadcasts, state datagrams, time-outs), and the UDP
// socket's delivery thread (client datagrams, module datagram echo).
// Locks: mutex_ guards the scene, the client table and every client's bookkeeping. Each
// client's outbox has its own lock, and its socket's writer side another (writeMutex);
// order: mutex_, then outMutex; writeMutex, then outMutex; a socket write or flush never
// happens under mutex_. udpMutex_ guards the UDP socket's writer side and is taken alone.
// Messages for one client are appended to its outbox under mutex_ and leave in that order.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"
#include "protocol/Wire.h"
#include "server/Scene.h"

namespace orvex::net {
class TcpListener;
class TcpConnection;
class UdpEndpoint;
}  // namespace orvex::net

namespace gameserver {

struct Options {
  std::string host = "127.0.0.1";  // "::" listens on every address, IPv4 and IPv6
  uint16_t port = 0;               // 0: a free port
  size_t entities = 16;
  double rate = 20.0;    // state datagrams per second
  std::string password;  // empty: no password asked
  std::vector<std::string> mods{"DEMO_sandbox"};
  std::string world = "sandbox";
  int32_t mode = 1;
  std::string config = "gravity=9.81";  // sent with its terminating zero
  std::string adminToken;               // a hello with this token is told it is admin
  std::string simulate;                 // the UDP socket's network condition settings
  uint64_t seed = 1;
  double eventsPerSecond = 1.0;  // scene updates, moves and destroys
  int clientTimeoutMs = 20000;   // silence after which a client is dropped
  int helloTimeoutMs = 10000;    // time a new connection has to complete its hello
  uint64_t parentEnvironment = 0, relativeEnvironment = 0;
  bool quiet = true;  // false: one line per event on std::cerr
  // Seconds after the start from which the scene stands still (no motion, no events) while
  // state datagrams keep flowing; 0: never. A soak compares replicas of a still scene.
  double freezeAfter = 0;
  // The shape of the stream: false for no entity riding on another (every transform
  // datagram then full, as at a large scale), and for no physics datagrams.
  bool riders = true;
  bool physics = true;
};

struct Counters {
  uint64_t clientsAccepted = 0, clientsRefused = 0, clientsLeft = 0, clientsTimedOut = 0;
  uint64_t tcpKeepAlives = 0, entityActions = 0, moduleMessages = 0;
  uint64_t datagramsIn = 0, datagramsRejected = 0, datagramKeepAlives = 0, moduleDatagrams = 0;
  uint64_t datagramsOut = 0, transformDatagrams = 0, physicsDatagrams = 0;
  uint64_t creates = 0, updates = 0, moves = 0, destroys = 0;
  uint64_t ticks = 0;
};

// A live entity as the server last put it on the wire.
struct EntityState {
  wire::Id id;
  wire::Id parent;
  std::string module;
  std::string text;
  glm::dvec3 position{};
  wire::Orientation orientation;
  uint32_t serial = 0, revision = 0;
};

// What the server counts for each client, listed once: the status line, --stats and the
// final state take their fields from kClientFigures, in this order.
enum ClientFigure : size_t {
  kEntityActions,
  kModuleMessages,
  kModuleDatagrams,
  // What the server sent it: datagrams and their bytes, reliable messages and TCP bytes.
  kDatagramsSent,
  kDatagramBytesSent,
  kReliableSent,
  kTcpBytesSent,
  kClientFigureCount
};
struct ClientFigureName {
  const char* state;   // the key in the final state (StateJson)
  const char* stats;   // the key in a --stats line
  const char* status;  // the words on the status line
};
inline constexpr ClientFigureName kClientFigures[kClientFigureCount] = {
    {"entityActions", "entityActions", "entity actions"},
    {"moduleMessages", "moduleMessages", "module messages"},
    {"moduleDatagrams", "moduleDatagrams", "module datagrams"},
    {"datagramsSent", "datagrams", "datagrams sent"},
    {"datagramBytesSent", "bytes", "datagram bytes sent"},
    {"reliableSent", "reliable", "reliable messages sent"},
    {"tcpBytesSent", "tcpBytes", "TCP bytes sent"},
};
using ClientFigures = std::array<uint64_t, kClientFigureCount>;

struct ClientInfo {
  uint64_t playerId = 0;
  std::string username;
  uint16_t serverTag = 0;
  std::string address;          // TCP peer
  std::string datagramAddress;  // learnt from the client's datagrams; empty until then
  uint16_t datagramPort = 0;
  bool connected = false;
  std::string dropReason;  // why a client that is gone went
  wire::Id lastActionEntity;
  wire::Bytes lastActionPayload;
  ClientFigures figures{};
};

class GameServer {
 public:
  using Options = gameserver::Options;

  // Checks the options (std::invalid_argument with a one-line reason) but binds nothing.
  explicit GameServer(Options options);
  GameServer(const GameServer&) = delete;
  GameServer& operator=(const GameServer&) = delete;
  ~GameServer();

  // Binds TCP and UDP to one port and starts the threads. Throws std::runtime_error when it
  // cannot bind, std::invalid_argument for bad simulation settings. Call once.
  void Start();
  // Tells every client goodbye (MSG_DISCONNECT), closes the connections and joins every
  // thread. Idempotent; the destructor calls it.
  void Stop();

  uint16_t Port() const { return port_; }
  const Options& GetOptions() const { return options_; }
  Counters GetCounters() const;
  std::vector<EntityState> Snapshot() const;
  // Every client that completed the handshake, connected or gone, in joining order.
  std::vector<ClientInfo> Clients() const;
  // The snapshot, the clients and the counters as JSON text.
  std::string StateJson() const;
  // Writes StateJson() to `path`; throws std::runtime_error when the file cannot be written.
  void WriteState(const std::string& path) const;

  // Sends `bytes` (`messages` whole TCP messages) to every welcomed client, after what it was
  // sent so far.
  void Broadcast(const wire::Bytes& bytes, uint64_t messages = 1);

 private:
  struct Client;

  void AcceptLoop();
  void Serve(std::shared_ptr<Client> client);
  bool Handshake(const std::shared_ptr<Client>& client);
  void ReadLoop(Client& client);
  void SimulationLoop();
  void Tick(uint64_t tick, double t);
  void OnDatagram(const orvex::net::UdpEndpoint& socket, const uint8_t* data, size_t size);
  void Drop(Client& client, const std::string& reason);
  void Deliver(Client& client);
  // Shuts the connection down (its reader wakes with an error); safe after it was released.
  void Close(Client& client);
  void SendDatagram(Client& client, const std::string& address, uint16_t port,
                    const wire::Bytes& bytes);
  void Log(const std::string& line) const;
  void LogStatus();
  ClientInfo InfoOf(const Client& client) const;
  int64_t NowMs() const;

  Options options_;
  std::vector<wire::ModuleID> modules_;
  uint16_t port_ = 0;
  std::unique_ptr<orvex::net::TcpListener> listener_;
  std::unique_ptr<orvex::net::UdpEndpoint> udp_;
  std::mutex udpMutex_;

  std::atomic<bool> started_{false};
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;
  std::thread simulationThread_;
  int64_t startMs_ = 0;

  mutable std::mutex mutex_;
  Scene scene_;
  std::mt19937_64 random_;
  uint64_t joined_ = 0;
  // Every connection whose thread has not been joined yet.
  std::vector<std::shared_ptr<Client>> connections_;
  // Welcomed and not yet dropped, by player id.
  std::unordered_map<uint64_t, std::shared_ptr<Client>> active_;
  // Every welcomed client, for Clients(); gone ones keep their last bookkeeping.
  std::vector<std::shared_ptr<Client>> history_;
  int64_t lastStatusMs_ = 0;

  struct AtomicCounters;
  std::unique_ptr<AtomicCounters> counters_;
  mutable std::mutex logMutex_;
};

}  // namespace gameserver
