#include "server/GameServer.h"

#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "common/Log.h"
#include "common/OutputFile.h"
#include "filesystem/StreamValues.h"
#include "game/Networking.h"
#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"
#include "orvex/net/Socket.h"
#include "protocol/Hex.h"
#include "protocol/Ports.h"

namespace gameserver {
namespace {

// The largest datagram the server sends.
constexpr unsigned long kUdpCapacity = wire::kMaxDatagram;
// How long a connection's hello may wait for its password marker after the token.
constexpr int kPasswordWaitMs = 100;
// Poll period of the threads that watch the stop flag.
constexpr int kPollMs = 200;
// How long Stop waits for told-goodbye clients to leave before it closes their connections.
constexpr int kGoodbyeGraceMs = 2000;
constexpr int kStallLimitMs = 5000;
constexpr int64_t kStatusEveryMs = 5000;
constexpr const char* kTimedOut = "timed out";

Scene::Options SceneOptions(const Options& options, const std::vector<wire::ModuleID>& modules) {
  Scene::Options scene;
  scene.entities = options.entities;
  scene.modules = modules;
  scene.seed = options.seed;
  scene.eventsPerSecond = options.eventsPerSecond;
  scene.riders = options.riders;
  return scene;
}

std::vector<wire::ModuleID> ParseMods(const Options& options) {
  if (options.mods.empty()) throw std::invalid_argument("the server needs at least one mod");
  std::vector<wire::ModuleID> modules;
  for (const std::string& name : options.mods) {
    wire::ModuleID id(name);
    if (id.String().empty()) {
      throw std::invalid_argument("'" + name + "' is not a module name (PREFIX_name)");
    }
    modules.push_back(id);
  }
  return modules;
}

const Options& Checked(const Options& options) {
  if (!(options.rate > 0.0 && options.rate <= 1000.0)) {
    throw std::invalid_argument("the rate must be above 0 and at most 1000 per second");
  }
  if (options.entities > 1000000) throw std::invalid_argument("at most 1000000 entities");
  if (options.clientTimeoutMs <= 0 || options.helloTimeoutMs <= 0) {
    throw std::invalid_argument("time-outs must be positive");
  }
  if (!(options.eventsPerSecond >= 0.0)) {
    throw std::invalid_argument("the event rate must not be negative");
  }
  if (!(options.freezeAfter >= 0.0) || !std::isfinite(options.freezeAfter)) {
    throw std::invalid_argument("the freeze time must be a number of seconds, at least 0");
  }
  return options;
}

}  // namespace

struct GameServer::AtomicCounters {
  std::atomic<uint64_t> clientsAccepted{0}, clientsRefused{0}, clientsLeft{0}, clientsTimedOut{0};
  std::atomic<uint64_t> tcpKeepAlives{0}, entityActions{0}, moduleMessages{0};
  std::atomic<uint64_t> datagramsIn{0}, datagramsRejected{0}, datagramKeepAlives{0},
      moduleDatagrams{0};
  std::atomic<uint64_t> datagramsOut{0}, transformDatagrams{0}, physicsDatagrams{0};
  std::atomic<uint64_t> creates{0}, updates{0}, moves{0}, destroys{0};
  std::atomic<uint64_t> ticks{0};
};

// One connection. The fields below `tcp` up to the outbox are guarded by the server's
// mutex_; the outbox by outMutex; the socket's writer side by writeMutex. The connection's
// own thread is the socket's only reader.
struct GameServer::Client {
  std::unique_ptr<orvex::net::TcpConnection> tcp;
  std::thread thread;
  std::atomic<bool> finished{false};
  std::atomic<bool> leaving{false};  // told goodbye, connection half-closed

  std::string address;
  int64_t helloDeadlineMs = 0;
  bool welcomed = false;
  bool connected = false;
  uint64_t playerId = 0;
  uint16_t serverTag = 0;
  std::string username;
  std::string datagramAddress;
  uint16_t datagramPort = 0;
  int64_t lastHeardMs = 0;
  std::string dropReason;
  wire::Id lastActionEntity;
  wire::Bytes lastActionPayload;

  std::mutex outMutex;
  wire::Bytes outbox;
  std::mutex writeMutex;
  // Atomic: the sent figures are counted where the sending happens, outside mutex_.
  std::array<std::atomic<uint64_t>, kClientFigureCount> figures{};

  // `bytes` holds `messages` whole messages.
  void Queue(const wire::Bytes& bytes, uint64_t messages = 1) {
    std::lock_guard<std::mutex> lock(outMutex);
    outbox.insert(outbox.end(), bytes.begin(), bytes.end());
    figures[kReliableSent] += messages;
  }
};

GameServer::GameServer(Options options)
    : options_(Checked(options)),
      modules_(ParseMods(options_)),
      scene_(SceneOptions(options_, modules_)),
      random_(options_.seed ^ 0x5EEDF00Dull),
      counters_(std::make_unique<AtomicCounters>()) {}

GameServer::~GameServer() {
  Stop();
}

int64_t GameServer::NowMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void GameServer::Start() {
  if (started_.exchange(true)) throw std::logic_error("the server was started already");
  try {
    wire::PortPair pair = wire::BindSamePort(options_.host, options_.port, kUdpCapacity);
    listener_ = std::move(pair.tcp);
    udp_ = std::move(pair.udp);
    if (!options_.simulate.empty()) udp_->Simulate(options_.simulate);
  } catch (...) {
    // Nothing runs yet: the server never started, and Stop() has nothing to do or say.
    listener_.reset();
    udp_.reset();
    started_ = false;
    throw;
  }
  port_ = listener_->GetPort();
  startMs_ = NowMs();
  lastStatusMs_ = startMs_;
  udp_->Receive(
      [this](const orvex::net::UdpEndpoint& socket, orvex::filesystem::ReadOnlyStream&& datagram) {
        try {
          const wire::Bytes bytes = orvex::filesystem::BytesOf(datagram);
          OnDatagram(socket, bytes.data(), bytes.size());
        } catch (const std::exception& e) {
          Log(std::string("datagram: ") + e.what());
        }
      });
  acceptThread_ = std::thread([this] { AcceptLoop(); });
  simulationThread_ = std::thread([this] { SimulationLoop(); });
  Log("listening on " + options_.host + " port " + std::to_string(port_));
}

void GameServer::Stop() {
  if (!started_ || stopping_.exchange(true)) return;
  if (listener_) listener_->Close();
  if (simulationThread_.joinable()) simulationThread_.join();
  if (acceptThread_.joinable()) acceptThread_.join();
  std::vector<std::shared_ptr<Client>> connections, welcomed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connections = connections_;
    orvex::filesystem::Stream out;
    wire::WriteDisconnect(out);
    for (auto& [id, client] : active_) {
      client->Queue(orvex::filesystem::BytesOf(out));
      welcomed.push_back(client);
    }
  }
  for (auto& client : welcomed) Deliver(*client);
  if (!welcomed.empty()) Log("said goodbye to " + std::to_string(welcomed.size()) + " clients");
  // Half-close after the goodbye and let each client leave on its own before closing:
  // closing a socket while its peer still sends makes the kernel reset the connection,
  // and the reset can discard the goodbye before the client has read it.
  for (auto& client : welcomed) {
    std::lock_guard<std::mutex> write(client->writeMutex);
    if (client->tcp) {
      client->leaving = true;
      ::shutdown(client->tcp->GetDescriptor(), SHUT_WR);
    }
  }
  const auto grace = std::chrono::steady_clock::now() + std::chrono::milliseconds(kGoodbyeGraceMs);
  for (auto& client : welcomed) {
    while (!client->finished && std::chrono::steady_clock::now() < grace) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  for (auto& client : connections) Close(*client);
  for (auto& client : connections) {
    if (client->thread.joinable()) client->thread.join();
  }
  if (udp_) udp_->StopReceiving();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [id, client] : active_) {
      client->connected = false;
      client->dropReason = "server stopped";
    }
    active_.clear();
    for (auto& client : connections_) {
      std::lock_guard<std::mutex> write(client->writeMutex);
      client->tcp.reset();
    }
    connections_.clear();
  }
  Log("stopped");
}

// ---------------------------------------------------------------------------------------
// Connections.

void GameServer::AcceptLoop() {
  pthread_setname_np(pthread_self(), "server-accept");
  while (!stopping_) {
    std::unique_ptr<orvex::net::TcpConnection> tcp;
    try {
      tcp = listener_->Accept(kPollMs, kStallLimitMs);
    } catch (const std::exception& e) {
      Log(std::string("accept: ") + e.what());
      std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    }
    // Join the threads of connections that ended, and close their sockets.
    std::vector<std::shared_ptr<Client>> ended;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto done = std::stable_partition(connections_.begin(), connections_.end(),
                                        [](const auto& c) { return !c->finished; });
      ended.assign(done, connections_.end());
      connections_.erase(done, connections_.end());
    }
    for (auto& client : ended) {
      client->thread.join();
      std::lock_guard<std::mutex> write(client->writeMutex);
      client->tcp.reset();
    }
    if (!tcp) continue;
    auto client = std::make_shared<Client>();
    client->tcp = std::move(tcp);
    client->address = client->tcp->GetRemoteAddress();
    // The handshake refuses a silent connection itself at helloTimeoutMs; the tick closes
    // one that is still unfinished a second later (a hello stuck in its reads), so that it
    // never cuts the refusal short.
    client->helloDeadlineMs = NowMs() + options_.helloTimeoutMs + 1000;
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(client);
    client->thread = std::thread([this, client] { Serve(client); });
  }
}

void GameServer::Serve(std::shared_ptr<Client> client) {
  pthread_setname_np(pthread_self(), "server-client");
  try {
    if (Handshake(client)) ReadLoop(*client);
  } catch (const std::exception& e) {
    // A connection that Stop() shut is marked "server stopped" by Stop() itself.
    if (!stopping_) Drop(*client, e.what());
  }
  Close(*client);
  client->finished = true;
}

bool GameServer::Handshake(const std::shared_ptr<Client>& client) {
  Client& c = *client;
  auto refuse = [&](const std::string& reason) {
    ++counters_->clientsRefused;
    Log("refused " + c.address + ": " + reason);
    try {
      orvex::filesystem::Stream out;
      wire::WriteRefusal(out, reason);
      std::lock_guard<std::mutex> write(c.writeMutex);
      const wire::Bytes bytes = orvex::filesystem::BytesOf(out);
      c.tcp->Write(bytes.data(), bytes.size());
      c.tcp->Flush();
      // Closing with unread bytes would reset the connection and could destroy the reason
      // before the client reads it; take in what the client already sent.
      unsigned char sink[4096];
      for (int i = 0; i < 16 && c.tcp->Poll(0) == 1; ++i) c.tcp->ReadSome(sink, sizeof sink);
    } catch (const std::exception&) {
      // The peer is gone already; nothing more to tell it.
    }
    return false;
  };

  const int ready = c.tcp->Poll(options_.helloTimeoutMs);
  if (ready != 1) return refuse("No hello");
  wire::Hello hello;
  try {
    hello = wire::ReadHello(*c.tcp, kPasswordWaitMs);
  } catch (const std::exception& e) {
    return refuse(std::string("Malformed hello: ") + e.what());
  }
  if (hello.lead != LEAD_BYTE ||
      hello.magic != std::string(networking::MAGIC, sizeof networking::MAGIC)) {
    return refuse("Not a game client");
  }
  if (hello.version != networking::HELLO_VERSION) {
    return refuse("Unsupported hello version " + std::to_string(hello.version));
  }
  if (!options_.password.empty() && (!hello.hasPassword || hello.password != options_.password)) {
    return refuse("Wrong password");
  }

  const bool admin = !options_.adminToken.empty() && hello.token == options_.adminToken;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return false;
    ++joined_;
    c.playerId = 1000 + joined_;
    c.serverTag = static_cast<uint16_t>(std::uniform_int_distribution<int>(1, 0xFFFF)(random_));
    c.username = "player" + std::to_string(joined_);
    c.welcomed = true;
    c.connected = true;
    c.lastHeardMs = NowMs();

    orvex::filesystem::Stream out;
    wire::Welcome welcome;
    welcome.networkingVersion = networking::NETWORKING_VERSION;
    welcome.serverTag = c.serverTag;
    welcome.playerId = c.playerId;
    welcome.username = c.username;
    welcome.mods = options_.mods;
    for (size_t i = 0; i < modules_.size(); ++i) welcome.mods[i] = modules_[i].String();
    welcome.mode = options_.mode;
    welcome.config = wire::ConfigText(options_.config);
    wire::WriteWelcome(out, welcome);
    wire::WriteWorld(out, options_.world);
    wire::WriteAdminStatus(out, admin ? "admin" : "player", admin ? 1 : 0);
    scene_.WriteCreates(out);
    c.Queue(orvex::filesystem::BytesOf(out), 3 + scene_.Entities().size());

    active_[c.playerId] = client;
    history_.push_back(client);
  }
  ++counters_->clientsAccepted;
  Log("welcomed " + c.username + " (player " + std::to_string(c.playerId) + ") from " + c.address +
      (admin ? " as admin" : ""));
  Deliver(c);
  return true;
}

void GameServer::ReadLoop(Client& c) {
  // A client is read until it leaves or its connection is shut; Stop() shuts every
  // connection only after the goodbye's grace period. Ending the loop on Stop()'s flag
  // instead would close a client's socket before its goodbye went out, and a peer that
  // still sends then gets a reset that can discard the goodbye.
  for (;;) {
    const int ready = c.tcp->Poll(kPollMs);
    if (ready == 0) continue;
    if (ready < 0) throw std::runtime_error("connection error");
    wire::ClientMessage message = wire::ReadClientMessage(*c.tcp);
    std::unique_lock<std::mutex> lock(mutex_);
    c.lastHeardMs = NowMs();
    switch (message.code) {
      case networking::MSG_KEEPALIVE:
        ++counters_->tcpKeepAlives;
        break;
      case networking::MSG_DISCONNECT:
        lock.unlock();
        Drop(c, "left");
        return;
      case networking::MSG_ENTITY_ACTION:
        ++counters_->entityActions;
        ++c.figures[kEntityActions];
        c.lastActionEntity = message.entity;
        c.lastActionPayload = std::move(message.payload);
        break;
      case networking::MSG_FOR_MODULE: {
        ++counters_->moduleMessages;
        ++c.figures[kModuleMessages];
        orvex::filesystem::Stream out;
        wire::WriteModuleMessage(out, message.module, message.payload);
        c.Queue(orvex::filesystem::BytesOf(out));
        lock.unlock();
        Deliver(c);
        break;
      }
    }
  }
}

void GameServer::Drop(Client& c, const std::string& reason) {
  std::string why;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!c.connected) return;
    c.connected = false;
    if (c.dropReason.empty()) c.dropReason = reason;
    why = c.dropReason;
    active_.erase(c.playerId);
  }
  if (why == kTimedOut) {
    ++counters_->clientsTimedOut;
  } else {
    ++counters_->clientsLeft;
  }
  Log(c.username + " gone: " + why);
}

void GameServer::Close(Client& c) {
  std::lock_guard<std::mutex> write(c.writeMutex);
  if (c.tcp) c.tcp->Shutdown();
}

// A client's messages wait in its outbox while its socket still has more than
// kWaitingInSocket bytes from earlier deliveries to send: the socket's queue holds one
// frame's burst (a joining client's whole scene), the outbox what follows while the client
// takes it in. A client that takes nothing is dropped by its socket's stall limit.
void GameServer::Deliver(Client& c) {
  constexpr uint64_t kWaitingInSocket = 8ull << 20;
  std::lock_guard<std::mutex> write(c.writeMutex);
  if (c.tcp && c.figures[kTcpBytesSent] > c.tcp->GetBytesOut() + kWaitingInSocket) {
    try {
      c.tcp->Flush();  // nothing new: reports a stalled peer
    } catch (const std::exception&) {
      c.tcp->Shutdown();
    }
    return;
  }
  wire::Bytes bytes;
  {
    std::lock_guard<std::mutex> lock(c.outMutex);
    bytes.swap(c.outbox);
  }
  if (bytes.empty() || !c.tcp) return;
  try {
    c.tcp->Write(bytes.data(), bytes.size());
    c.tcp->Flush();
    c.figures[kTcpBytesSent] += bytes.size();
  } catch (const std::exception&) {
    // The reader thread sees the shut connection and drops the client.
    c.tcp->Shutdown();
  }
}

void GameServer::Broadcast(const wire::Bytes& bytes, uint64_t messages) {
  std::vector<std::shared_ptr<Client>> recipients;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [id, client] : active_) {
      client->Queue(bytes, messages);
      recipients.push_back(client);
    }
  }
  for (auto& client : recipients) Deliver(*client);
}

// ---------------------------------------------------------------------------------------
// Datagrams.

void GameServer::OnDatagram(const orvex::net::UdpEndpoint& socket, const uint8_t* data,
                            size_t size) {
  ++counters_->datagramsIn;
  std::optional<wire::ClientDatagram> datagram = wire::ParseClientDatagram(data, size);
  if (!datagram || datagram->lead != LEAD_BYTE ||
      datagram->networkingVersion != networking::NETWORKING_VERSION) {
    ++counters_->datagramsRejected;
    return;
  }
  const std::string address = socket.GetIncomingAddress();
  const uint16_t port = socket.GetIncomingPort();
  std::vector<wire::Bytes> echoes;
  std::shared_ptr<Client> sender;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = active_.find(datagram->playerId);
    // The player id names the client; its tag and its host vouch for the sender.
    if (it == active_.end() || it->second->serverTag != datagram->serverTag ||
        it->second->address != address) {
      ++counters_->datagramsRejected;
      return;
    }
    sender = it->second;
    Client& c = *sender;
    c.datagramAddress = address;
    c.datagramPort = port;
    c.lastHeardMs = NowMs();
    for (const wire::ClientMessage& message : datagram->messages) {
      if (message.code == networking::MSG_KEEPALIVE) {
        ++counters_->datagramKeepAlives;
      } else {
        ++counters_->moduleDatagrams;
        ++c.figures[kModuleDatagrams];
        echoes.push_back(wire::ModuleDatagram(message.module, message.payload));
      }
    }
  }
  for (const wire::Bytes& echo : echoes) SendDatagram(*sender, address, port, echo);
}

void GameServer::SendDatagram(Client& client, const std::string& address, uint16_t port,
                              const wire::Bytes& bytes) {
  std::lock_guard<std::mutex> lock(udpMutex_);
  try {
    udp_->SetDestination(address, port);
    udp_->Write(bytes.data(), bytes.size());
    udp_->Flush();
    ++counters_->datagramsOut;
    ++client.figures[kDatagramsSent];
    client.figures[kDatagramBytesSent] += bytes.size();
  } catch (const std::exception& e) {
    Log("datagram to " + address + ": " + e.what());
  }
}

// ---------------------------------------------------------------------------------------
// Simulation.

void GameServer::SimulationLoop() {
  pthread_setname_np(pthread_self(), "server-tick");
  const double periodMs = 1000.0 / options_.rate;
  uint64_t tick = 0;
  double next = static_cast<double>(startMs_);
  while (!stopping_) {
    const double now = static_cast<double>(NowMs());
    if (now < next) {
      const double wait = std::min<double>(next - now, kPollMs);
      std::this_thread::sleep_for(std::chrono::microseconds(static_cast<int64_t>(wait * 1000)));
      continue;
    }
    // A server that fell far behind skips the missed ticks instead of bursting.
    next = std::max(next + periodMs, now - 2 * periodMs);
    ++tick;
    try {
      Tick(tick, (now - static_cast<double>(startMs_)) / 1000.0);
    } catch (const std::exception& e) {
      Log(std::string("tick: ") + e.what());
    }
  }
}

void GameServer::Tick(uint64_t tick, double t) {
  struct Destination {
    std::shared_ptr<Client> client;
    std::string address;
    uint16_t port;
  };
  std::vector<std::shared_ptr<Client>> recipients, silent, unfinished;
  std::vector<Destination> destinations;
  std::vector<wire::Bytes> datagrams;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    orvex::filesystem::Stream out;
    const bool frozen = options_.freezeAfter > 0 && t >= options_.freezeAfter;
    const SceneChanges changes = frozen ? SceneChanges{} : scene_.Step(t, out);
    const uint64_t messages = changes.creates + changes.updates + changes.moves + changes.destroys;
    counters_->creates += changes.creates;
    counters_->updates += changes.updates;
    counters_->moves += changes.moves;
    counters_->destroys += changes.destroys;
    const wire::Bytes broadcast = orvex::filesystem::BytesOf(out);
    const int64_t now = NowMs();
    for (auto& [id, client] : active_) {
      if (!broadcast.empty()) {
        client->Queue(broadcast, messages);
        recipients.push_back(client);
      }
      if (client->dropReason.empty() && now - client->lastHeardMs > options_.clientTimeoutMs) {
        client->dropReason = kTimedOut;
        orvex::filesystem::Stream bye;
        wire::WriteDisconnect(bye);
        client->Queue(orvex::filesystem::BytesOf(bye));
        silent.push_back(client);
      }
      if (client->datagramPort != 0) {
        destinations.push_back({client, client->datagramAddress, client->datagramPort});
      }
    }
    for (auto& client : connections_) {
      if (!client->welcomed && !client->finished && now > client->helloDeadlineMs) {
        unfinished.push_back(client);
      }
    }
    if (!destinations.empty()) {
      wire::StateHeader header;
      header.serverTime = t;
      header.sequence = tick;
      header.parentEnvironment = options_.parentEnvironment;
      header.relativeEnvironment = options_.relativeEnvironment;
      header.divisor = 1;
      const size_t perTransforms = wire::MaxRecordsPerDatagram(networking::MSG_TRANSFORMS);
      for (auto& [parent, records] : scene_.TransformGroups()) {
        for (size_t i = 0; i < records.size(); i += perTransforms) {
          std::vector<wire::TransformRecord> part(
              records.begin() + static_cast<long>(i),
              records.begin() + static_cast<long>(std::min(records.size(), i + perTransforms)));
          datagrams.push_back(wire::TransformsDatagram(header, parent, part));
        }
      }
      const size_t transforms = datagrams.size();
      const std::vector<wire::PhysicsRecord> physics =
          options_.physics ? scene_.PhysicsRecords() : std::vector<wire::PhysicsRecord>{};
      const size_t perPhysics = wire::MaxRecordsPerDatagram(networking::MSG_PHYSICS);
      for (size_t i = 0; i < physics.size(); i += perPhysics) {
        std::vector<wire::PhysicsRecord> part(
            physics.begin() + static_cast<long>(i),
            physics.begin() + static_cast<long>(std::min(physics.size(), i + perPhysics)));
        datagrams.push_back(wire::PhysicsDatagram(header, part));
      }
      counters_->transformDatagrams += transforms * destinations.size();
      counters_->physicsDatagrams += (datagrams.size() - transforms) * destinations.size();
    }
  }
  ++counters_->ticks;
  for (auto& client : recipients) Deliver(*client);
  for (auto& client : silent) {
    Deliver(*client);
    Close(*client);
  }
  for (auto& client : unfinished) Close(*client);
  for (const Destination& d : destinations) {
    for (const wire::Bytes& datagram : datagrams) {
      SendDatagram(*d.client, d.address, d.port, datagram);
    }
  }
  if (!options_.quiet && NowMs() - lastStatusMs_ >= kStatusEveryMs) {
    lastStatusMs_ = NowMs();
    LogStatus();
  }
}

// ---------------------------------------------------------------------------------------
// Reports.

Counters GameServer::GetCounters() const {
  const AtomicCounters& a = *counters_;
  Counters c;
  c.clientsAccepted = a.clientsAccepted;
  c.clientsRefused = a.clientsRefused;
  c.clientsLeft = a.clientsLeft;
  c.clientsTimedOut = a.clientsTimedOut;
  c.tcpKeepAlives = a.tcpKeepAlives;
  c.entityActions = a.entityActions;
  c.moduleMessages = a.moduleMessages;
  c.datagramsIn = a.datagramsIn;
  c.datagramsRejected = a.datagramsRejected;
  c.datagramKeepAlives = a.datagramKeepAlives;
  c.moduleDatagrams = a.moduleDatagrams;
  c.datagramsOut = a.datagramsOut;
  c.transformDatagrams = a.transformDatagrams;
  c.physicsDatagrams = a.physicsDatagrams;
  c.creates = a.creates;
  c.updates = a.updates;
  c.moves = a.moves;
  c.destroys = a.destroys;
  c.ticks = a.ticks;
  return c;
}

std::vector<EntityState> GameServer::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<EntityState> states;
  states.reserve(scene_.Entities().size());
  for (const SceneEntity& e : scene_.Entities()) {
    states.push_back(EntityState{e.id, e.parent, e.module.String(), e.text, e.sentPosition,
                                 e.sentOrientation, e.serial, e.revision});
  }
  return states;
}

ClientInfo GameServer::InfoOf(const Client& c) const {
  ClientInfo info;
  info.playerId = c.playerId;
  info.username = c.username;
  info.serverTag = c.serverTag;
  info.address = c.address;
  info.datagramAddress = c.datagramAddress;
  info.datagramPort = c.datagramPort;
  info.connected = c.connected;
  info.dropReason = c.dropReason;
  info.lastActionEntity = c.lastActionEntity;
  info.lastActionPayload = c.lastActionPayload;
  for (size_t f = 0; f < kClientFigureCount; ++f) info.figures[f] = c.figures[f];
  return info;
}

std::vector<ClientInfo> GameServer::Clients() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ClientInfo> infos;
  for (const auto& client : history_) infos.push_back(InfoOf(*client));
  return infos;
}

std::string GameServer::StateJson() const {
  using nlohmann::json;
  auto vec = [](const glm::dvec3& v) { return json::array({v.x, v.y, v.z}); };
  json entities = json::array();
  for (const EntityState& e : Snapshot()) {
    entities.push_back({{"id", e.id.ToString()},
                        {"parent", e.parent.ToString()},
                        {"module", e.module},
                        {"text", e.text},
                        {"position", vec(e.position)},
                        {"orientation", json::array({e.orientation.w, e.orientation.x,
                                                     e.orientation.y, e.orientation.z})},
                        {"serial", e.serial},
                        {"revision", e.revision}});
  }
  json clients = json::array();
  for (const ClientInfo& c : Clients()) {
    json client = {{"playerId", c.playerId},
                   {"username", c.username},
                   {"address", c.address},
                   {"datagramAddress", c.datagramAddress},
                   {"datagramPort", c.datagramPort},
                   {"connected", c.connected},
                   {"dropReason", c.dropReason},
                   {"lastActionEntity", c.lastActionEntity.ToString()},
                   {"lastActionPayload", wire::Hex(c.lastActionPayload)}};
    for (size_t f = 0; f < kClientFigureCount; ++f) client[kClientFigures[f].state] = c.figures[f];
    clients.push_back(client);
  }
  const Counters n = GetCounters();
  json counters = {{"clientsAccepted", n.clientsAccepted},
                   {"clientsRefused", n.clientsRefused},
                   {"clientsLeft", n.clientsLeft},
                   {"clientsTimedOut", n.clientsTimedOut},
                   {"tcpKeepAlives", n.tcpKeepAlives},
                   {"entityActions", n.entityActions},
                   {"moduleMessages", n.moduleMessages},
                   {"datagramsIn", n.datagramsIn},
                   {"datagramsRejected", n.datagramsRejected},
                   {"datagramKeepAlives", n.datagramKeepAlives},
                   {"moduleDatagrams", n.moduleDatagrams},
                   {"datagramsOut", n.datagramsOut},
                   {"transformDatagrams", n.transformDatagrams},
                   {"physicsDatagrams", n.physicsDatagrams},
                   {"creates", n.creates},
                   {"updates", n.updates},
                   {"moves", n.moves},
                   {"destroys", n.destroys},
                   {"ticks", n.ticks}};
  json state = {{"port", port_},
                {"world", options_.world},
                {"entities", entities},
                {"clients", clients},
                {"counters", counters}};
  return state.dump(2);
}

void GameServer::WriteState(const std::string& path) const {
  tools::WriteText(path, StateJson() + "\n");
}

void GameServer::Log(const std::string& line) const {
  if (options_.quiet) return;
  std::lock_guard<std::mutex> lock(logMutex_);
  std::cerr << tools::LogHead("game-server", tools::Level::kInfo) << line << std::endl;
}

void GameServer::LogStatus() {
  std::vector<ClientInfo> clients = Clients();
  size_t entities;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    entities = scene_.Entities().size();
  }
  const Counters n = GetCounters();
  Log(std::to_string(entities) + " entities, tick " + std::to_string(n.ticks) + ", " +
      std::to_string(n.datagramsOut) + " datagrams out, " + std::to_string(n.datagramsIn) + " in");
  for (const ClientInfo& c : clients) {
    if (!c.connected) continue;
    std::string line = "  " + c.username + ":";
    for (size_t f = 0; f < kClientFigureCount; ++f) {
      line += (f == 0 ? " " : ", ") + std::to_string(c.figures[f]) + " " + kClientFigures[f].status;
    }
    if (c.figures[kEntityActions] != 0)
      line += "; last action " + wire::Hex(c.lastActionPayload, 32);
    Log(line);
  }
}

}  // namespace gameserver
