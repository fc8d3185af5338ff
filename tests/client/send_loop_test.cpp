// The send step: one flush per frame, keep-alive paces, liveness, a broken connection, profiling.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "ClientSession.h"
#include "FakeClock.h"
#include "Game.h"
#include "Hex.h"
#include "StderrCapture.h"
#include "TestMods.h"
#include "support/Profiler.h"

namespace {

using namespace testlib;
using orvex::cpu::Profiler;
using orvex::filesystem::WriteOnlyStream;

// The profiler on for the case; the test thread's count under a key and its open scopes.
struct ProfilerOn {
  ProfilerOn() { Clear(true); }
  ~ProfilerOn() { Clear(false); }
  static void Clear(bool enabled) {
    std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
    Profiler::enabled = enabled;
    Profiler::profiles.clear();
    Profiler::profileStacks.clear();
  }
  static Profiler::Profile Of(const std::string& key) {
    std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
    return Profiler::profiles[std::this_thread::get_id()][key];
  }
  static size_t OpenScopes() {
    std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
    return Profiler::profileStacks[std::this_thread::get_id()].size();
  }
};

// A connected client on the fake clock; the receiving thread starts once the server speaks.
class SendLoop : public testing::Test {
 protected:
  SendLoop() { Start(); }
  void Start() {
    session.reset();
    ResetClientState();
    FakeClock::Install();
    SessionOptions options;
    options.startReceiving = false;
    session = std::make_unique<Session>(options);
  }
  uint64_t SendFrame() {
    const uint64_t before = session->Client().GetBytesOut();
    session->Client().Send();
    return session->Client().GetBytesOut() - before;
  }
  Bytes Tcp(size_t n) { return session->Connection().ReadBytes(n); }

  CleanClientState clean;
  std::unique_ptr<Session> session;
};

TEST_F(SendLoop, ActionsAndModuleMessagesLeaveInOneFlushAfterTheLastMod) {
  auto entity = MakeEntity(EntityId(1), "ship");
  QueueAction(*entity, {1, 2, 3});
  QueueAction(*entity, {4});
  LoadSendMod("TEST_alpha", [](WriteOnlyStream& r, WriteOnlyStream&) { WriteBytes(r, {5, 6}); });
  size_t arrivedBeforeLastMod = 0;
  LoadSendMod("TEST_beta", [&](WriteOnlyStream& reliable, WriteOnlyStream&) {
    arrivedBeforeLastMod = session->Connection().ReadAvailable(100, 100).size();
    WriteBytes(reliable, {7});
  });
  session->Client().Send();
  EXPECT_EQ(arrivedBeforeLastMod, 0u) << "reliable records left before the frame's flush";
  // The records byte for byte: 0x43, entity id, counted payload; 0x7F, module id, payload.
  wire::ByteWriter expected;
  expected.U8(0x43).Entity(entity->id).U32(3).U8(1).U8(2).U8(3);
  expected.U8(0x43).Entity(entity->id).U32(1).U8(4);
  expected.U8(0x7F).Module(wire::ModuleID("TEST_alpha")).U32(2).U8(5).U8(6);
  expected.U8(0x7F).Module(wire::ModuleID("TEST_beta")).U32(1).U8(7);
  EXPECT_HEX_EQ(Tcp(expected.bytes().size()), expected.bytes());
  EXPECT_FALSE(entity->hasPendingActions);
}

// A keep-alive is due when its channel was silent for more than its pace (TCP 5 s,
// datagrams 0.5 s) since its last one; traffic replaces a due one without restarting it.
TEST_F(SendLoop, KeepAlivePaces) {
  enum { kNothing, kKeepAlive, kMessage };
  bool reliable = false, unreliable = false;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream& r, WriteOnlyStream& u) {
    if (reliable) WriteBytes(r, {1, 2});
    if (unreliable) WriteBytes(u, {1, 2});
  });
  const struct {
    const char* name;
    double atMs;
    bool reliable, unreliable;
    int tcp, datagram;
  } steps[] = {
      // clang-format off
      {"first frame sends both", 0, false, false, kKeepAlive, kKeepAlive},
      {"nothing due", 250, false, false, kNothing, kNothing},
      {"exactly the datagram pace", 500, false, false, kNothing, kNothing},
      {"past the datagram pace", 500.001, false, false, kNothing, kKeepAlive},
      {"pace counts from the last one", 1000, false, false, kNothing, kNothing},
      {"datagram due again", 1000.002, false, false, kNothing, kKeepAlive},
      {"module datagram replaces it", 1600, false, true, kNothing, kMessage},
      {"without restarting the timer", 1600.5, false, false, kNothing, kKeepAlive},
      {"reliable record, nothing due", 2000, true, false, kMessage, kNothing},
      {"exactly the TCP pace", 5000, false, false, kNothing, kKeepAlive},
      {"record replaces the TCP one", 5000.001, true, false, kMessage, kNothing},
      {"TCP timer not restarted", 5000.5, false, false, kKeepAlive, kNothing},
      // clang-format on
  };
  // The keep-alives byte for byte: the code alone on TCP; as a datagram lead byte,
  // networking version, server tag, player id, code.
  wire::ByteWriter keepAlive;
  keepAlive.U8(7).U16(1).U16(0x0A0B).U64(0x1122334455667788ull).U8(3);
  const Bytes tcpOut[] = {{}, {0x03}, ModuleRecord("TEST_alpha", {1, 2})};
  const Bytes udpOut[] = {{}, keepAlive, ClientModuleDatagram("TEST_alpha", {1, 2})};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    FakeClock::At(step.atMs);
    reliable = step.reliable;
    unreliable = step.unreliable;
    const Bytes &tcp = tcpOut[step.tcp], &udp = udpOut[step.datagram];
    EXPECT_EQ(SendFrame(), tcp.size() + udp.size());
    EXPECT_HEX_EQ(Tcp(tcp.size()), tcp);
    if (!udp.empty()) {
      EXPECT_HEX_EQ(session->NextDatagram(), udp);
    }
  }
}

// The silence check starts with the first server message and allows exactly 15 s. A failed
// check sends nothing, runs no mod, leaves the actions queued and the error alone, and every
// later frame reaches the same verdict.
TEST_F(SendLoop, LivenessBoundaries) {
  const struct {
    const char* name;
    bool hosting;
    double speaksAt, frameAt;  // speaksAt < 0: the server never spoke
    std::string line;          // "": the frame goes ahead
  } rows[] = {
      {"no silence before the first message", false, -1, 100000, ""},
      {"exactly 15 s", false, 1000, 16000, ""},
      {"longer silence", false, 1000, 16000.001, "Disconnected from server\n"},
      {"hosting the server: its thread froze", true, 0, 60000, "Server thread frozen\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start();
    ProfilerOn profiler;
    Game::_is_server = row.hosting;
    client::Client::error = "earlier loss";
    auto entity = MakeEntity(EntityId(1), "ship");
    QueueAction(*entity, {1});
    int modRuns = 0;
    LoadSendMod("TEST_alpha", [&](WriteOnlyStream&, WriteOnlyStream&) { ++modRuns; });
    if (row.speaksAt >= 0) {
      FakeClock::At(row.speaksAt);
      session->StartReceiving();
      session->SendReliable({});  // stamped at the fake time of its arrival
    }
    FakeClock::At(row.frameAt);
    StderrCapture captured;
    const bool quits = !row.line.empty();
    EXPECT_EQ(SendFrame() == 0, quits);
    EXPECT_EQ(Game::QuitRequested(), quits);
    EXPECT_EQ(modRuns, quits ? 0 : 1);
    EXPECT_EQ(bool(entity->hasPendingActions), quits);
    if (quits) {
      EXPECT_EQ(SendFrame(), 0u);
    }
    EXPECT_EQ(captured.Text(), quits ? row.line + row.line : "");
    EXPECT_EQ(client::Client::error, "earlier loss");
    EXPECT_EQ(ProfilerOn::Of("Client::Send").count, quits ? 2u : 1u);
    EXPECT_EQ(ProfilerOn::OpenScopes(), 0u);
  }
}

// The server closes its end; a later flush fails (the first write may still go into the
// kernel). The failing frame ends the game with one line and sends no datagram keep-alive.
TEST_F(SendLoop, FailedFlushEndsTheGame) {
  for (const bool action : {true, false}) {
    SCOPED_TRACE(action ? "frame flush of an action" : "keep-alive flush");
    Start();
    ProfilerOn profiler;
    auto entity = MakeEntity(EntityId(1), "ship");
    StderrCapture captured;
    session->connection.reset();
    int frames = 0;
    while (client::Client::error.empty() && frames < 50) {
      if (frames++ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      FakeClock::Advance(action ? 1000 : 5001);  // past the datagram or both paces
      if (action) QueueAction(*entity, Pattern(64));
      session->Client().Send();
      EXPECT_EQ(Game::QuitRequested(), !client::Client::error.empty());
    }
    ASSERT_EQ(client::Client::error, "Disconnected from server");
    for (int i = 1; i < frames; ++i) EXPECT_HEX_EQ(session->NextDatagram(), KeepAliveDatagram());
    EXPECT_TRUE(session->NoMoreDatagrams()) << "the failing frame sent a datagram keep-alive";
    EXPECT_THAT(captured.Text(), testing::MatchesRegex("[^\n]+\n")) << "the reason, one line";
    EXPECT_NO_THROW(session->Client().Send());  // later frames fail quietly for the game
    EXPECT_EQ(ProfilerOn::Of("Client::Send").count, uint32_t(frames + 1));
    EXPECT_EQ(ProfilerOn::OpenScopes(), 0u);
  }
}

TEST_F(SendLoop, EveryCallIsOneProfileMeasurementEvenWhenAModThrows) {
  ProfilerOn profiler;
  bool fail = false;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream&, WriteOnlyStream&) {
    Profiler physics("Physics", true);  // the mod's step takes 2 ms of fake time
    FakeClock::Advance(2);
    physics.Stop();
    if (fail) throw std::runtime_error("mod failed");
  });
  for (int i = 0; i < 3; ++i) session->Client().Send();
  fail = true;
  EXPECT_THROW(session->Client().Send(), std::runtime_error);
  EXPECT_EQ(ProfilerOn::Of("Client::Send").count, 4u);
  EXPECT_DOUBLE_EQ(ProfilerOn::Of("Client::Send").totalMs, 8.0);
  EXPECT_EQ(ProfilerOn::Of("Client::Send/Physics").count, 4u);
  EXPECT_EQ(ProfilerOn::Of("Physics").count + ProfilerOn::Of("Client::Send/Client::Send").count,
            0u);
  EXPECT_EQ(ProfilerOn::OpenScopes(), 0u);
}

}  // namespace
