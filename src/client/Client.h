// client::Client: the game's one connection to a game server.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvex/filesystem/Stream.h"
#include "orvex/net/Socket.h"

class GAME_Mod;

namespace game::entity {
class ClientSideEntity;
class RegistryWalk;
}  // namespace game::entity

// client.so exports client::Client's public members and hides the rest of the module (it is
// compiled with hidden visibility; src/client.map is the export list).
#define CLIENT_EXPORT __attribute__((visibility("default")))

namespace client {

struct StateHeader;

// Read-only statistics for status lines. Relaxed atomics, written by whichever thread sees
// the event; they change no behaviour and no byte on the wire.
struct Counters {
  std::atomic<uint64_t> datagramsAccepted{0};
  std::atomic<uint64_t> droppedShort{0};
  std::atomic<uint64_t> droppedMagic{0};
  std::atomic<uint64_t> droppedSender{0};
  std::atomic<uint64_t> droppedStale{0};
  std::atomic<uint64_t> droppedForeign{0};
  // Reliable server messages, by code byte.
  std::atomic<uint64_t> reliableByCode[256] = {};
};

// The calling order of the game:
//   construct (main thread: connect, hello, welcome, datagram callback registered);
//   start a thread running ReceivingThread();
//   Connected() once;
//   Send() once per frame, and run the work queued with Game::Synchronize, while
//   Game::isActive holds;
//   clear Game::isActive (or let a disconnect or the liveness check call Game::Quit()),
//   join the receiving thread;
//   destroy the client (main thread).
// The client starts and joins no thread of its own.
//
// Threads and the state they touch:
//   - game thread: constructor, Connected, Send, destructor, the accessors, and the state
//     passes queued through Game::Synchronize;
//   - receiving thread: ReceivingThread and the reliable messages (the only reader of tcp
//     after the handshake; the game thread is its only writer, with no lock between);
//   - the UDP socket's delivery thread: the datagram callback (lastTransformSequence and
//     lastPhysicsSequence are touched only there).
//   receiveMutex guards lastReceiveTime between the two receive paths and Send().
class Client {
 public:
  // Connects to host:port, sends the hello with `token` (at most 64 bytes) and `password`
  // (none when empty), reads the welcome and registers the datagram callback. Throws
  // std::runtime_error on every failure: "Bad Token Length", "Connection attempt failed:
  // Timed out", "Networking version mismatch", "Handshake with server has failed", the
  // server's own refusal text, or the platform's error.
  CLIENT_EXPORT Client(std::string host, uint16_t port, std::string token, std::string password);
  CLIENT_EXPORT ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Lets each mod send its first message (one TCP flush for all).
  CLIENT_EXPORT void Connected();
  // The body of the game's receiving thread: polls tcp every 500 ms and carries out each
  // waiting message while Game::isActive holds. A std::runtime_error ends it with one line
  // "ERROR: <text>" on std::cerr.
  CLIENT_EXPORT void ReceivingThread();
  // The per-frame outbound step: liveness, entity actions, module messages, one TCP
  // flush, keep-alives on silent channels.
  CLIENT_EXPORT void Send();

  // The live client's user name, player id and admin flag. Abort with an assertion line
  // when no client is live.
  CLIENT_EXPORT static std::string GetUsername();
  CLIENT_EXPORT static uint64_t GetPlayerID();
  CLIENT_EXPORT static bool IsAdmin();

  // The live client, or null. Set during construction (after the token check) and cleared
  // first thing by the destructor; a failed construction leaves it pointing at the failed
  // object, so the accessors stay unusable until a new client is built.
  CLIENT_EXPORT static Client* _instance;
  // Why the connection was lost ("Disconnected from server"), for the game to show.
  CLIENT_EXPORT static std::string error;

  const Counters& GetCounters() const { return counters; }

 private:
  // Tests and fuzzers reach the datagram intake directly (tests/testlib).
  friend class ClientTestPeer;

  bool Handshake();
  void Receive();
  void UdpMessage(const orvex::net::UdpSocket& socket,
                  orvex::filesystem::ReadOnlyStream&& datagram);
  void Receive(orvex::filesystem::ReadOnlyStream&& datagram);

  // Starts the receive stamp (both receive paths).
  void StampReceive();
  void DeliverToModule(const std::string& module, orvex::filesystem::ReadOnlyStream& payload);
  void ReceiveEntityCreate();
  void ReceiveEntityUpdate();
  void ReceiveEntityMove();
  void ReceiveTransforms(orvex::filesystem::ReadOnlyStream& datagram);
  void ReceivePhysics(orvex::filesystem::ReadOnlyStream& datagram);
  bool AcceptSequence(const StateHeader& header, uint64_t& last);

  // Outbound helpers, game thread only.
  void UploadEntity(std::shared_ptr<game::entity::ClientSideEntity> entity);
  void UploadModule(std::shared_ptr<GAME_Mod>& module);
  void SendModuleReliable(const GAME_Mod& module);
  void SendModuleUnreliable(const GAME_Mod& module);
  void WriteDatagramHeader();
  void TcpFlushFailed(const std::exception& failure);

  orvex::net::TcpSocket tcp;
  orvex::net::UdpSocket udp;
  orvex::filesystem::WriteOnlyStream moduleStream;
  orvex::filesystem::WriteOnlyStream datagramStream;
  uint16_t networkingVersion = 0;
  uint16_t serverTag = 0;
  uint64_t playerId = 0;
  std::string username;
  std::string privilegeText;
  // Written by the receiving thread, read by IsAdmin() on the game thread.
  std::atomic<bool> admin{false};
  std::string serverAddress;
  // The receive stamp: a Timer in layout and behaviour. receiveMutex guards
  // lastReceiveTime; receivedAnything only ever turns true and is read without the mutex.
  std::mutex receiveMutex;
  double lastReceiveTime = 0.0;
  std::atomic<bool> receivedAnything{false};
  // The walk that finds entities with actions queued, in the registry's order; game thread.
  std::unique_ptr<game::entity::RegistryWalk> actionWalk;
  uint64_t lastTransformSequence = 0;
  uint64_t lastPhysicsSequence = 0;
  std::vector<char> configText;

  // Appended after the members above; read-only, they change no behaviour.
  Counters counters;
  // The per-call flags of Send(). They live in the client rather than on Send()'s stack so
  // that a module flush handler left installed by a failed flush never refers to a dead
  // frame; Send() clears them at the start of every call.
  bool tcpSent = false;
  bool udpSent = false;
};

}  // namespace client
