// Shared set-up of the outbound suites: a connected client on loopback, a clock that only
// moves when the test moves it, scriptable send handlers, and the exact bytes that the
// server must read.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/ClientHarness.h"
#include "client/TestMods.h"
#include "game/entity/ClientSideEntity.h"
#include "support/Profiler.h"
#include "support/Timer.h"

namespace clienttest {

// What DefaultWelcome() gives the client for its datagram header.
inline constexpr uint16_t kNetworkingVersion = 1;
inline constexpr uint16_t kServerTag = 0x0A0B;
inline constexpr uint64_t kPlayerId = 0x1122334455667788ull;

// The process-wide clock of every Timer and of the client's receive stamp, frozen at a
// point the test chooses. Each Install() starts 1000 s after the previous one, so the
// keep-alive timers (function-local statics of Send) that an earlier case of the same
// process left running have long expired: a case starts as if its timers were fresh, as
// long as every earlier case in the process ran on this clock too (ctest runs each case
// in a process of its own). The values stay far below 2^53 ns, so every whole-nanosecond
// time and every difference the client computes is exact.
class FakeClock {
 public:
  static void Install() {
    static std::atomic<int64_t> installs{0};
    epochNs_ = 1'000'000'000'000'000 + 1'000'000'000'000 * installs.fetch_add(1);
    nowNs_ = epochNs_;
    Timer::SetClockSourceForTesting(&Now);
  }
  // Sets the time to `ms` after the epoch of this case.
  static void At(double ms) { nowNs_ = epochNs_ + std::llround(ms * 1e6); }
  static void Advance(double ms) { nowNs_ = nowNs_ + std::llround(ms * 1e6); }

 private:
  static double Now() { return static_cast<double>(nowNs_.load()); }

  static inline int64_t epochNs_ = 0;
  static inline std::atomic<int64_t> nowNs_{0};
};

// Test mods with send and connect handlers. The handlers are plain function pointers, so
// each mod gets a slot whose handler calls the script stored in it.
using SendScript = std::function<void(orvex::filesystem::WriteOnlyStream& reliable,
                                      orvex::filesystem::WriteOnlyStream& unreliable)>;

inline constexpr size_t kScriptSlots = 4;
inline std::array<SendScript, kScriptSlots> sendScripts;
inline size_t scriptsInUse = 0;

template <size_t Slot>
void ScriptedSend(orvex::filesystem::WriteOnlyStream& reliable,
                  orvex::filesystem::WriteOnlyStream& unreliable) {
  sendScripts[Slot](reliable, unreliable);
}

inline GAME_Mod::SendHandler SendHandlerOfSlot(size_t slot) {
  static constexpr std::array<GAME_Mod::SendHandler, kScriptSlots> handlers = {
      &ScriptedSend<0>, &ScriptedSend<1>, &ScriptedSend<2>, &ScriptedSend<3>};
  return handlers.at(slot);
}

// Loads mod `name`, whose send handler runs `script`; an empty script loads a mod without
// a send handler.
inline std::shared_ptr<GAME_Mod> LoadSendMod(const std::string& name, SendScript script) {
  auto mod = std::make_shared<GAME_Mod>(name);
  if (script) {
    if (scriptsInUse == kScriptSlots) throw std::logic_error("no free send script slot");
    sendScripts[scriptsInUse] = std::move(script);
    mod->clientSendHandler = SendHandlerOfSlot(scriptsInUse++);
  }
  GAME_Mod::Load(mod);
  return mod;
}

inline void ClearSendScripts() {
  for (SendScript& script : sendScripts) script = nullptr;
  scriptsInUse = 0;
}

inline void WriteBytes(orvex::filesystem::Stream& stream, const Bytes& bytes) {
  stream.Write(bytes.data(), bytes.size());
}

// Payload bytes 0, 1, 2, ... of length `size`, offset by `seed`.
inline Bytes Pattern(size_t size, uint8_t seed = 0) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i);
  return bytes;
}

// Bytes as hex text, 16 to a line, so that a failed comparison shows where they differ.
inline std::string Hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
    text += (i % 16 == 15 || i + 1 == bytes.size()) ? '\n' : ' ';
  }
  return text;
}
#define EXPECT_HEX_EQ(actual, expected) \
  EXPECT_EQ(::clienttest::Hex(actual), ::clienttest::Hex(expected))

// Exact wire forms. The client's datagrams open with lead byte, networking version,
// server tag and player id.
inline Bytes DatagramHeader() {
  return wire::ByteWriter().U8(0x07).U16(kNetworkingVersion).U16(kServerTag).U64(kPlayerId);
}
inline Bytes KeepAliveDatagram() {
  return wire::ByteWriter().Append(DatagramHeader()).U8(0x03);
}
inline Bytes ModuleRecord(const std::string& module, const Bytes& payload) {
  return wire::ByteWriter().U8(0x7F).Module(orvex::modular::ModuleID(module)).Block(payload);
}
inline Bytes ModuleDatagram(const std::string& module, const Bytes& payload) {
  return wire::ByteWriter().Append(DatagramHeader()).Append(ModuleRecord(module, payload));
}
inline Bytes ActionRecord(const game::entity::Id& id, const Bytes& payload) {
  return wire::ByteWriter().U8(0x43).Entity(id).Block(payload);
}

// Registers a bare entity (its module supplies no interface) and returns it.
inline game::entity::ClientSideEntity::Ptr MakeBareEntity(uint64_t n) {
  return game::entity::ClientSideEntity::Create<game::entity::ClientSideEntity>(EntityId(n),
                                                                                "TEST_mod", "x");
}

inline void QueueAction(game::entity::ClientSideEntity& entity, const Bytes& payload) {
  orvex::filesystem::Stream action;
  WriteBytes(action, payload);
  entity.QueueAction(std::move(action));
}

// The calling thread's profile under `key`, copied under the tables' lock.
inline std::optional<orvex::cpu::Profiler::Profile> ProfileOf(const std::string& key) {
  std::lock_guard<orvex::SharedMutex> lock(orvex::cpu::Profiler::profilesMutex);
  auto thread = orvex::cpu::Profiler::profiles.find(std::this_thread::get_id());
  if (thread == orvex::cpu::Profiler::profiles.end()) return std::nullopt;
  auto it = thread->second.find(key);
  if (it == thread->second.end()) return std::nullopt;
  return it->second;
}

inline std::vector<std::string> ProfileStack() {
  std::lock_guard<orvex::SharedMutex> lock(orvex::cpu::Profiler::profilesMutex);
  auto it = orvex::cpu::Profiler::profileStacks.find(std::this_thread::get_id());
  return it == orvex::cpu::Profiler::profileStacks.end() ? std::vector<std::string>{} : it->second;
}

inline void ResetProfiler() {
  std::lock_guard<orvex::SharedMutex> lock(orvex::cpu::Profiler::profilesMutex);
  orvex::cpu::Profiler::enabled = false;
  orvex::cpu::Profiler::profiles.clear();
  orvex::cpu::Profiler::profileStacks.clear();
}

// A connected client on the fake clock. The receiving thread is off unless a case needs
// server traffic to arrive; the test thread is the game thread.
class OutboundTest : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    ClearSendScripts();
    ResetProfiler();
    FakeClock::Install();
    SessionOptions options;
    options.startReceiving = false;
    session = std::make_unique<Session>(options);
  }
  void TearDown() override {
    session.reset();
    ClearSendScripts();
    ResetProfiler();
    ClientTest::TearDown();
  }

  client::Client& Client() { return session->Client(); }
  testserver::TestConnection& Server() { return session->Connection(); }

  // Bytes that left the client on both channels while `step` ran (counted by the sockets,
  // so a frame that sends nothing is seen at once, without waiting).
  uint64_t BytesOutOf(const std::function<void()>& step) {
    const uint64_t before = Client().GetBytesOut();
    step();
    return Client().GetBytesOut() - before;
  }
  uint64_t SendFrame() {
    return BytesOutOf([this] { Client().Send(); });
  }

  // The next datagram from the client; fails the case when none arrives in time.
  Bytes NextDatagram() {
    std::optional<testserver::ReceivedDatagram> datagram = session->server.NextDatagram(5000);
    if (!datagram) throw std::runtime_error("no datagram arrived from the client");
    return datagram->bytes;
  }
  // True when no further datagram arrives within a short wait.
  bool NoMoreDatagrams() { return !session->server.NextDatagram(200).has_value(); }

  std::unique_ptr<Session> session;
};

}  // namespace clienttest
