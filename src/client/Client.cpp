#include "client/Client.h"

#include <cmath>
#include <cstring>
#include <iostream>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "GAME_Mod.h"
#include "Game.h"
#include "Timer.h"
#include "client/Assert.h"
#include "client/Limits.h"
#include "client/StatePasses.h"
#include "client/Values.h"
#include "entity/RegistryWalk.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"
#include "orvex/cpu/Profiler.h"
#include "orvex/modular/ModuleID.h"
#include "support/Clock.h"

namespace client {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::ReadOnlyStream;
using orvex::modular::ModuleID;

namespace {

// Fixed lines of the inbound assertions (see CLIENT_ASSERT_AT).
constexpr int kLineCreateExists = 286;
constexpr int kLineUpdateEntity = 317;
constexpr int kLineUpdateInterface = 343;
constexpr int kLineMoveEntity = 362;

constexpr int kWelcomeWaitMs = 5000;
constexpr int kConnectTimeoutMs = 5000;
constexpr int kReceivePollMs = 500;
using limits::kDatagramCapacity;
using limits::kTokenLimit;
constexpr unsigned long kTextLimit = 65535;
// The most the welcome's mod list (names with their 4-byte counts) and its configuration
// text may hold: the same 16 MiB that the engine's sockets allow one string or stream.
constexpr unsigned long kBlockLimit = 16ul << 20;
constexpr size_t kRegistryReserve = 100000;
constexpr double kSilenceLimitMs = 15000.0;
constexpr double kTcpKeepAliveMs = 5000.0;
constexpr double kDatagramKeepAliveMs = 500.0;
// A datagram is the 13-byte header plus records; a module record costs 21 bytes more than
// its payload (code, ModuleID, embedded-stream count).
using limits::kDatagramHeaderSize;
using limits::kModuleRecordOverhead;
constexpr unsigned long kMaxModulePayload =
    kDatagramCapacity - kDatagramHeaderSize - kModuleRecordOverhead;  // 1366

double NowMs() {
  return support::NowNs() / 1000000.0;
}

template <typename T>
T Read(orvex::filesystem::Stream& stream) {
  return ReadValue<T>(stream);
}

// What an update or a move does to the entity's transform.
struct TransformAction {
  bool both = false;    // current and target transform take the message's values
  bool target = false;  // only the target does
  bool stop = false;    // velocity zeroed, velocityReset set
};

void Apply(ClientSideEntity& entity, const TransformAction& action, const glm::dvec3& position,
           const Orientation& orientation) {
  if (action.both) {
    entity.position = position;
    entity.orientation = orientation;
  }
  if (action.both || action.target) {
    entity.targetPosition = position;
    entity.targetOrientation = orientation;
  }
  if (action.stop) {
    entity.velocity = glm::dvec3(0.0);
    entity.velocityReset = true;
  }
}

// The update's decision table. D: the entity follows the server; R: its update rate
// (exactly 0.0 until a transform datagram was applied; NaN counts as non-zero); S and F:
// the message's smooth and forceSnap bytes. The asymmetries are deliberate: a non-driven
// entity takes a position only with S 0 and F set, and a driven entity that already gets
// transform datagrams, with smoothing allowed and no forced snap, only gets a new target.
TransformAction DecideUpdate(bool driven, float rate, uint8_t smooth, uint8_t forceSnap) {
  TransformAction action;
  if (!driven) {
    action.both = smooth == 0 && forceSnap != 0;
    action.stop = smooth == 0 || forceSnap != 0 || smooth != 1;
  } else if (smooth == 0) {
    action.both = action.stop = true;
  } else if (rate == 0.0f) {
    action.both = true;
    action.stop = forceSnap != 0 || smooth != 1;
  } else if (forceSnap != 0) {
    action.both = action.stop = true;
  } else {
    action.target = true;
  }
  return action;
}

// The move's rules: like an update, but the stored forceSnap G decides instead of the
// message's (a move carries only the smooth byte S).
TransformAction DecideMove(float rate, uint8_t smooth, uint8_t storedForceSnap) {
  TransformAction action;
  if (smooth == 0) {
    action.both = action.stop = true;
  } else if (rate == 0.0f) {
    action.both = true;
    action.stop = storedForceSnap != 0;
  } else if (storedForceSnap != 0) {
    action.both = action.stop = true;
  } else {
    action.target = true;
  }
  return action;
}

// A module message, the same on TCP and in a datagram: code 0x7F, the ModuleID's two words
// in the order the mod stores them, the payload as an embedded stream (4 + N bytes).
void WriteModuleRecord(orvex::filesystem::Stream& out, const ModuleID& module,
                       const orvex::filesystem::Stream& payload) {
  WriteValue(out, networking::MSG_FOR_MODULE);
  WriteValue(out, module.prefix);
  WriteValue(out, module.name);
  out.Write(payload);
}

// The datagram callback runs on the socket's delivery thread, which the socket's destructor
// stops and joins; but the members declared after `udp` die before that destructor runs. The
// gate closes first thing in the destructor: a callback that starts afterwards finds no
// target and returns, and one already running holds the gate, so the destructor waits for
// it. `gateMutex` guards `gateTarget`; it is never held with a lock of the client's except
// those the datagram intake takes (receiveMutex, the registry's), and only on the delivery
// thread.
std::mutex gateMutex;
const Client* gateTarget = nullptr;

void CloseDatagramGate(const Client* client) {
  std::lock_guard<std::mutex> lock(gateMutex);
  if (gateTarget == client) gateTarget = nullptr;
}

}  // namespace

Client* Client::_instance = nullptr;
std::string Client::error;

Client::Client(std::string host, uint16_t port, std::string token, std::string password)
    : tcp(host, port, 0, kConnectTimeoutMs),
      udp(host, port, kDatagramCapacity),
      moduleStream(0),
      datagramStream(kDatagramCapacity),
      actionWalk(std::make_unique<game::entity::RegistryWalk>()) {
  if (token.size() > kTokenLimit) throw std::runtime_error("Bad Token Length");
  _instance = this;

  // The hello: lead byte, magic, version, token; the password as a message of its own.
  WriteValue(tcp, LEAD_BYTE);
  tcp.Write(reinterpret_cast<const unsigned char*>(networking::MAGIC), sizeof(networking::MAGIC));
  WriteValue(tcp, networking::HELLO_VERSION);
  tcp.Write(token);
  if (!password.empty()) {
    WriteValue(tcp, networking::MSG_PSWD);
    tcp.Write(password);
  }
  tcp.Flush();

  {
    std::lock_guard<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    ClientSideEntity::_sharedObjects.reserve(kRegistryReserve);
  }

  if (tcp.Poll(kWelcomeWaitMs) != 1) {
    throw std::runtime_error("Connection attempt failed: Timed out");
  }
  if (Read<uint8_t>(tcp) != 1) throw std::runtime_error(tcp.ReadString(kTextLimit));
  serverAddress = tcp.GetRemoteAddress();
  if (!Handshake()) throw std::runtime_error("Handshake with server has failed");

  {
    std::lock_guard<std::mutex> lock(gateMutex);
    gateTarget = this;
  }
  try {
    udp.Receive([this](const orvex::net::UdpSocket& socket, ReadOnlyStream&& datagram) {
      std::lock_guard<std::mutex> lock(gateMutex);
      if (gateTarget != this) return;
      try {
        UdpMessage(socket, std::move(datagram));
      } catch (...) {
        // No exception from a datagram reaches the platform socket.
      }
    });
  } catch (...) {
    CloseDatagramGate(this);
    throw;
  }
}

bool Client::Handshake() {
  networkingVersion = Read<uint16_t>(tcp);
  if (networkingVersion != networking::NETWORKING_VERSION) {
    throw std::runtime_error("Networking version mismatch");
  }
  serverTag = Read<uint16_t>(tcp);
  playerId = Read<uint64_t>(tcp);
  tcp.Read(username);

  // Each name is bounded by the string cap; the list as a whole is bounded by the block cap
  // (counting each name's 4-byte count), so an endless list cannot exhaust memory.
  std::vector<std::string> mods;
  unsigned long modListBytes = 0;
  for (;;) {
    std::string mod = tcp.ReadString(kTextLimit);
    if (mod.empty()) break;
    modListBytes += sizeof(uint32_t) + mod.size();
    if (modListBytes > kBlockLimit) {
      throw std::runtime_error("mod list of more than " + std::to_string(kBlockLimit) +
                               " bytes exceeds the limit");
    }
    mods.push_back(std::move(mod));
  }
  const int32_t mode = Read<int32_t>(tcp);
  const uint32_t configLength = Read<uint32_t>(tcp);
  // The count is the server's; a socket read of it is bounded like any other block.
  if (configLength > kBlockLimit) {
    throw std::runtime_error("configuration text of " + std::to_string(configLength) +
                             " bytes exceeds the limit of " + std::to_string(kBlockLimit) +
                             " bytes");
  }
  configText.assign(configLength, '\0');
  if (configLength != 0) {
    tcp.Read(reinterpret_cast<unsigned char*>(configText.data()), configLength);
    // game::Config::Parse reads up to a zero byte, so the count must take one in (the
    // server sends the terminator; the client adds none). A process that hosts the server
    // does not parse the text, so it keeps whatever came.
    if (!Game::_is_server && std::memchr(configText.data(), '\0', configLength) == nullptr) {
      throw std::runtime_error("Configuration text is not zero-terminated");
    }
  }

  if (!Game::_is_server) {
    Game::_mode = mode;
    Game::config.Parse(configText.data());
    Game::_mods = std::move(mods);
  }
  return true;
}

Client::~Client() {
  // No datagram callback may run on a half-destroyed client: the gate closes before
  // anything else changes (it waits for a callback under way, a few microseconds), so every
  // callback that runs sees the client whole, _instance included.
  CloseDatagramGate(this);
  _instance = nullptr;
  try {
    WriteValue(tcp, networking::MSG_DISCONNECT);
    tcp.Flush();
  } catch (...) {
    // The server may be gone already; leaving is never an error.
  }
}

void Client::Connected() {
  moduleStream.Flush();
  GAME_Mod::ForEachModule([this](std::shared_ptr<GAME_Mod>& entry) {
    const std::shared_ptr<GAME_Mod> module = entry;
    const GAME_Mod::ConnectHandler handler = module->clientConnectHandler;
    if (handler == nullptr) return;
    handler(playerId, username, moduleStream);
    if (moduleStream.GetBufferSize() == 0) return;
    WriteModuleRecord(tcp, module->moduleId, moduleStream);
    moduleStream.Flush();
  });
  tcp.Flush();
}

void Client::ReceivingThread() {
  try {
    while (Game::isActive) {
      const int ready = tcp.Poll(kReceivePollMs);
      if (ready == 0) continue;
      if (ready != 1) {
        throw std::runtime_error("Communication error during Poll in Client::ReceivingThread()");
      }
      Receive();
    }
  } catch (const std::runtime_error& failure) {
    std::cerr << "ERROR: " << failure.what() << std::endl;
  }
}

void Client::StampReceive() {
  std::lock_guard<std::mutex> lock(receiveMutex);
  receivedAnything = true;
  lastReceiveTime = NowMs();
}

void Client::DeliverToModule(const std::string& module, ReadOnlyStream& payload) {
  const std::shared_ptr<GAME_Mod> mod = GAME_Mod::GetModule(module);
  if (mod && mod->clientMessageHandler != nullptr) mod->clientMessageHandler(payload);
}

// One reliable message per call. Fields are read in order with blocking reads; a
// sub-stream is always the last field. Codes that are not listed read nothing more.
void Client::Receive() {
  StampReceive();
  const uint8_t code = Read<uint8_t>(tcp);
  counters.reliableByCode[code].fetch_add(1, std::memory_order_relaxed);
  switch (code) {
    case networking::MSG_DISCONNECT:
      Game::Quit();
      break;
    case networking::MSG_WORLD:
      tcp.Read(Game::_current_world);
      break;
    case networking::MSG_ADMIN_STATUS:
      tcp.Read(privilegeText);
      admin = Read<uint8_t>(tcp) != 0;
      break;
    case networking::MSG_ENTITY_CREATE:
      ReceiveEntityCreate();
      break;
    case networking::MSG_ENTITY_DESTROY:
      ClientSideEntity::Destroy(Read<Id>(tcp));
      break;
    case networking::MSG_ENTITY_UPDATE:
      ReceiveEntityUpdate();
      break;
    case networking::MSG_ENTITY_MOVE:
      ReceiveEntityMove();
      break;
    case networking::MSG_FOR_MODULE: {
      const ModuleID module = Read<ModuleID>(tcp);
      ReadOnlyStream payload = tcp.ReadStream();
      DeliverToModule(module.String(), payload);
      break;
    }
    default:
      break;
  }
}

void Client::ReceiveEntityCreate() {
  const Id entityID = Read<Id>(tcp);
  const ModuleID module = Read<ModuleID>(tcp);
  std::string interfaceName;
  tcp.Read(interfaceName);
  const Id parent = Read<Id>(tcp);
  const glm::dvec3 position = Read<glm::dvec3>(tcp);
  const Orientation orientation = Read<Orientation>(tcp);
  const uint8_t smooth = Read<uint8_t>(tcp);
  const uint8_t forceSnap = Read<uint8_t>(tcp);
  ReadOnlyStream data = tcp.ReadStream();

  CLIENT_ASSERT_AT(!game::entity::ClientSideEntity::Exists(entityID), kLineCreateExists);
  const ClientSideEntity::Ptr entity = ClientSideEntity::Interface::Create(
      entityID, module.String(), interfaceName, parent, position, orientation, std::move(data));
  // An entity whose module supplies no interface is already gone again.
  if (!entity) return;
  entity->velocityReset = true;
  entity->smooth = smooth;
  entity->forceSnap = forceSnap;
}

void Client::ReceiveEntityUpdate() {
  const Id entityID = Read<Id>(tcp);
  Read<Id>(tcp);  // the second id is part of the message and carries nothing for the client
  const glm::dvec3 position = Read<glm::dvec3>(tcp);
  const Orientation orientation = Read<Orientation>(tcp);
  const uint8_t smooth = Read<uint8_t>(tcp);
  const uint8_t forceSnap = Read<uint8_t>(tcp);
  ReadOnlyStream data = tcp.ReadStream();

  const ClientSideEntity::Ptr entity = ClientSideEntity::Get<ClientSideEntity>(entityID);
  CLIENT_ASSERT_AT(entity, kLineUpdateEntity);
  Apply(*entity, DecideUpdate(entity->serverDriven, entity->updateRate, smooth, forceSnap),
        position, orientation);
  entity->smooth = smooth;
  entity->forceSnap = forceSnap;
  entity->hasTarget = true;
  entity->stale = false;

  const std::shared_ptr<ClientSideEntity::Interface> interface = entity->interface;
  CLIENT_ASSERT_AT(interface, kLineUpdateInterface);
  interface->Sync(data);
}

void Client::ReceiveEntityMove() {
  const Id entityID = Read<Id>(tcp);
  const uint8_t smooth = Read<uint8_t>(tcp);  // before the position, unlike create and update
  const glm::dvec3 position = Read<glm::dvec3>(tcp);
  const Orientation orientation = Read<Orientation>(tcp);

  const ClientSideEntity::Ptr entity = ClientSideEntity::Get<ClientSideEntity>(entityID);
  CLIENT_ASSERT_AT(entity, kLineMoveEntity);
  Apply(*entity, DecideMove(entity->updateRate, smooth, entity->forceSnap), position, orientation);
  entity->hasTarget = true;
  entity->smooth = smooth;
  entity->stale = false;
}

void Client::UdpMessage(const orvex::net::UdpSocket& socket, ReadOnlyStream&& datagram) {
  if (datagram.GetSize() < sizeof(networking::MAGIC)) {
    counters.droppedShort.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  char magic[sizeof(networking::MAGIC)];
  datagram.Read(reinterpret_cast<unsigned char*>(magic), sizeof(magic));
  if (std::memcmp(magic, networking::MAGIC, sizeof(magic)) != 0) {
    counters.droppedMagic.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  if (socket.GetIncomingAddress() != serverAddress) {
    counters.droppedSender.fetch_add(1, std::memory_order_relaxed);
    std::cerr << "Client received UDP packet from wrong ip address" << std::endl;
    return;
  }
  Receive(std::move(datagram));
}

void Client::Receive(ReadOnlyStream&& datagram) {
  StampReceive();
  const uint8_t code = Read<uint8_t>(datagram);
  switch (code) {
    case networking::MSG_TRANSFORMS:
      ReceiveTransforms(datagram);
      break;
    case networking::MSG_PHYSICS:
      ReceivePhysics(datagram);
      break;
    case networking::MSG_FOR_MODULE: {
      const ModuleID module = Read<ModuleID>(datagram);
      ReadOnlyStream payload = datagram.ReadStream();
      counters.datagramsAccepted.fetch_add(1, std::memory_order_relaxed);
      DeliverToModule(module.String(), payload);
      break;
    }
    default:
      break;
  }
}

// The header fields that both state datagrams share. The transform header has the parent
// Id between the environments and the divisor; the physics header has none.
struct StateHeader {
  double serverTime = 0.0;
  uint64_t sequence = 0;
  uint64_t parentEnvironment = 0;
  uint64_t relativeEnvironment = 0;
  Id parent;
  int32_t divisor = 0;

  bool Foreign() const {
    return parentEnvironment != Game::parentEnvironmentId ||
           relativeEnvironment != Game::relativeEnvironmentId;
  }
};

namespace {

StateHeader ReadStateHeader(ReadOnlyStream& datagram, bool withParent) {
  StateHeader header;
  header.serverTime = Read<double>(datagram);
  header.sequence = Read<uint64_t>(datagram);
  header.parentEnvironment = Read<uint64_t>(datagram);
  header.relativeEnvironment = Read<uint64_t>(datagram);
  if (withParent) header.parent = Read<Id>(datagram);
  header.divisor = Read<int32_t>(datagram);
  return header;
}

}  // namespace

// Sequence rules, for state datagrams whose divisor N is 1 only: a sequence below the
// newest accepted one (`last`, one counter per kind) is stale; an equal one is accepted.
// Those datagrams also carry the server time, not applied in a process that hosts the
// server itself. Returns false for a stale datagram.
bool Client::AcceptSequence(const StateHeader& header, uint64_t& last) {
  if (header.divisor != 1) return true;
  if (header.sequence < last) {
    counters.droppedStale.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  last = header.sequence;
  if (!Game::_is_server) Game::timestamp = header.serverTime;
  return true;
}

void Client::ReceiveTransforms(ReadOnlyStream& datagram) {
  const StateHeader header = ReadStateHeader(datagram, true);
  if (!AcceptSequence(header, lastTransformSequence)) return;
  // A datagram from another environment is not dropped: its records clear hasTarget.
  counters.datagramsAccepted.fetch_add(1, std::memory_order_relaxed);
  Game::Synchronize(
      TransformPass(ReadOnlyStream(datagram), header.divisor, header.parent, header.Foreign()));
}

void Client::ReceivePhysics(ReadOnlyStream& datagram) {
  const StateHeader header = ReadStateHeader(datagram, false);
  if (!AcceptSequence(header, lastPhysicsSequence)) return;
  // Foreign physics is dropped, after the counter and the time may have moved.
  if (header.Foreign()) {
    counters.droppedForeign.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  counters.datagramsAccepted.fetch_add(1, std::memory_order_relaxed);
  Game::Synchronize(PhysicsPass(ReadOnlyStream(datagram)));
}

void Client::Send() {
  orvex::cpu::Profiler profiler("Client::Send", true);
  // Closes the profiler scope exactly once, on every way out (exceptions included).
  struct ScopeEnd {
    orvex::cpu::Profiler& profiler;
    ~ScopeEnd() { profiler.Stop(); }
  } scopeEnd{profiler};

  tcpSent = false;
  udpSent = false;

  if (receivedAnything) {
    double silentMs;
    {
      std::lock_guard<std::mutex> lock(receiveMutex);
      silentMs = (support::NowNs() - lastReceiveTime * 1000000.0) / 1000000.0;
    }
    if (silentMs > kSilenceLimitMs) {
      Game::Quit();
      std::cerr << (Game::_is_server ? "Server thread frozen" : "Disconnected from server")
                << std::endl;
      return;
    }
  }

  // The walk visits every entity in the registry's order. Only entities whose flag is set
  // are handed on: for the others the upload would do nothing.
  {
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    actionWalk->ForEach(&ClientSideEntity::hasPendingActions,
                        [this](const ClientSideEntity::Ptr& entity) { UploadEntity(entity); });
  }

  GAME_Mod::ForEachModule([this](std::shared_ptr<GAME_Mod>& module) { UploadModule(module); });

  try {
    tcp.Flush();
  } catch (const std::exception& failure) {
    TcpFlushFailed(failure);
    return;
  }

  // The module handlers refer to this call's module; none survives it.
  moduleStream.flushHandler = [] {};
  datagramStream.flushHandler = [] {};

  // Keep-alives go out only on channels that stayed silent in this frame, and only a
  // keep-alive restarts its timer: the first silent frame after the pace sends at once.
  if (!tcpSent) {
    static Timer keepAliveTimer;
    if (!keepAliveTimer.running || keepAliveTimer.Elapsed() > kTcpKeepAliveMs) {
      WriteValue(tcp, networking::MSG_KEEPALIVE);
      try {
        tcp.Flush();
      } catch (const std::exception& failure) {
        TcpFlushFailed(failure);
        return;
      }
      keepAliveTimer.Start();
    }
  }
  if (!udpSent) {
    static Timer keepAliveTimer;
    if (!keepAliveTimer.running || keepAliveTimer.Elapsed() > kDatagramKeepAliveMs) {
      WriteDatagramHeader();
      WriteValue(udp, networking::MSG_KEEPALIVE);
      udp.Flush();
      keepAliveTimer.Start();
    }
  }
}

void Client::TcpFlushFailed(const std::exception& failure) {
  std::cerr << failure.what() << std::endl;
  error = "Disconnected from server";
  Game::Quit();
}

// Each queued action: code, entity id (one 16-byte write), the action as an embedded
// stream. Lock order: the registry's shared lock (held by Send) before actionsMutex.
void Client::UploadEntity(std::shared_ptr<ClientSideEntity> entity) {
  if (!entity->hasPendingActions) return;
  std::lock_guard<std::mutex> lock(entity->actionsMutex);
  for (const orvex::filesystem::Stream& action : entity->pendingActions) {
    WriteValue(tcp, networking::MSG_ENTITY_ACTION);
    WriteValue(tcp, entity->id);
    tcp.Write(action);
    tcpSent = true;
  }
  entity->pendingActions.clear();
  entity->hasPendingActions = false;
}

void Client::UploadModule(std::shared_ptr<GAME_Mod>& entry) {
  const std::shared_ptr<GAME_Mod> module = entry;
  if (module->clientSendHandler != nullptr) {
    moduleStream.flushHandler = [this, module] { SendModuleReliable(*module); };
    datagramStream.flushHandler = [this, module] {
      SendModuleUnreliable(*module);
      udp.Flush();
    };
    // Emptied through the handlers just installed, which find nothing to send: a payload
    // that the previous module could not send was emptied by that module's own flush.
    moduleStream.Flush();
    datagramStream.Flush();
    module->clientSendHandler(moduleStream, datagramStream);
    // The handlers send what the mod left in its streams, and the streams are emptied.
    moduleStream.Flush();
    datagramStream.Flush();
  }
  udp.Flush();
}

void Client::SendModuleReliable(const GAME_Mod& module) {
  if (moduleStream.GetBufferSize() == 0) return;
  WriteModuleRecord(tcp, module.moduleId, moduleStream);
  // Runs inside the stream's flush handler, where Flush only empties.
  moduleStream.Flush();
  tcpSent = true;
}

void Client::SendModuleUnreliable(const GAME_Mod& module) {
  const unsigned long size = datagramStream.GetBufferSize();
  if (size == 0) return;
  if (size > kMaxModulePayload) {
    // Left in the buffer; the flush that ran this handler empties it.
    std::cerr << "Datagram packet size exceeds " << kMaxModulePayload
              << " bytes and is therefore discarded" << std::endl;
    return;
  }
  if (udp.GetBufferSize() + size + kModuleRecordOverhead > kDatagramCapacity) udp.Flush();
  if (udp.GetBufferSize() == 0) WriteDatagramHeader();
  WriteModuleRecord(udp, module.moduleId, datagramStream);
  datagramStream.Flush();  // inside the handler: only empties
  udpSent = true;
}

// lead byte, networkingVersion, serverTag, playerId: 13 bytes.
void Client::WriteDatagramHeader() {
  WriteValue(udp, LEAD_BYTE);
  WriteValue(udp, networkingVersion);
  WriteValue(udp, serverTag);
  WriteValue(udp, playerId);
}

std::string Client::GetUsername() {
  CLIENT_ASSERT(_instance);
  return _instance->username;
}

uint64_t Client::GetPlayerID() {
  CLIENT_ASSERT(Client::_instance);
  return _instance->playerId;
}

bool Client::IsAdmin() {
  CLIENT_ASSERT(_instance);
  return _instance->admin;
}

}  // namespace client
