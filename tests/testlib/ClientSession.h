// The client harness: a client::Client on loopback against the in-process test server, the
// test mods of the client suites and the reset of the process-wide state around each case.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FakeClock.h"
#include "Messages.h"
#include "TestServer.h"
#include "client/Client.h"
#include "game/Host.h"
#include "game/entity/ClientSideEntity.h"

namespace testlib {

using game::entity::ClientSideEntity;

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
inline void WriteBytes(orvex::filesystem::Stream& stream, const Bytes& bytes) {
  stream.Write(bytes.data(), bytes.size());
}

// Records the bytes left in the stream at each Sync(); written on the receiving thread, read
// after a Session::Send* barrier.
struct RecordingInterface : ClientSideEntity::Interface {
  void Sync(orvex::filesystem::ReadOnlyStream& data) override;
  std::vector<Bytes> syncs;
};

// TEST_entities gives, by entity text, "nointerface" no interface, "static" an undriven
// RecordingInterface, anything else a driven one. TEST_recorder records each message payload
// (any thread); TEST_probe counts the Session barriers. Installing is idempotent.
inline constexpr const char* kEntityMod = "TEST_entities";
inline constexpr const char* kRecorderMod = "TEST_recorder";
void InstallTestMods();
std::vector<Bytes> RecordedPayloads();

// Registers an entity of TEST_entities directly, as a creation message would.
ClientSideEntity::Ptr MakeEntity(game::entity::Id id, const std::string& text,
                                 game::entity::Id parent = {}, glm::dvec3 position = {},
                                 game::entity::Orientation orientation = {});
inline ClientSideEntity::Ptr FindEntity(game::entity::Id id) {
  return ClientSideEntity::Get<ClientSideEntity>(id);
}
inline void QueueAction(ClientSideEntity& entity, const Bytes& payload) {
  orvex::filesystem::Stream action;
  WriteBytes(action, payload);
  orvex::engine::QueueAction(entity, std::move(action));
}

// Loads mod `name` whose send handler runs `script` (none when empty); four per case.
using SendScript = std::function<void(orvex::filesystem::WriteOnlyStream& reliable,
                                      orvex::filesystem::WriteOnlyStream& unreliable)>;
void LoadSendMod(const std::string& name, SendScript script);

// Puts the game, mods, registry, clock, recorders, scripts and client statics back.
void ResetClientState();
// Declared first in a fixture, it resets at both ends of the case, around the sessions.
struct CleanClientState {
  CleanClientState() { ResetClientState(); }
  ~CleanClientState() { ResetClientState(); }
};

// A client welcomed with DefaultWelcome(), by default receiving; the test thread plays the game
// thread. The Send* barriers follow the bytes with a TEST_probe message and wait for it.
struct Session {
  explicit Session(bool startReceiving = true);
  ~Session() { StopReceiving(); }  // then the client goes, then the connection
  void StartReceiving();
  // Clears Game::isActive and joins; `wake` sends a byte so the thread sees it at once.
  void StopReceiving(bool wake = true);
  void SendReliable(const Bytes& bytes);
  // Makes the client send a datagram and records its address (needed by SendDatagram).
  void LearnDatagramAddress();
  void SendDatagram(const Bytes& bytes);

  testserver::TestServer server;
  std::unique_ptr<testserver::TestConnection> connection;
  std::unique_ptr<client::Client> client;
  std::string clientAddress;
  uint16_t clientPort = 0;
  std::thread receiving;
  size_t probesSent = 0;
};

// Fresh() resets the state and puts the clock on the fake one (the send step's keep-alive
// timers are process statics that must start on it); Start() then connects a session.
struct ClientFixture {
  void Fresh() {
    session.reset();
    ResetClientState();
    FakeClock::Install();
  }
  void Start() {
    Fresh();
    session = std::make_unique<Session>(startReceiving);
  }
  CleanClientState clean;
  bool startReceiving = true;
  std::unique_ptr<Session> session;
};

// The constructor's exception text ("" if built) against a server that answers the hello
// with `reply` (empty: silence) and then, with `close`, closes.
std::string ConstructionError(const Bytes& reply, bool close = false);

}  // namespace testlib
