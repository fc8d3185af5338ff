// The send step: what one frame uploads, keep-alive paces, liveness.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ClientSession.h"
#include "FakeClock.h"
#include "GAME_Mod.h"
#include "Game.h"
#include "Hex.h"
#include "StderrCapture.h"
#include "game/Host.h"
#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"

namespace {

using namespace testlib;
using orvex::filesystem::WriteOnlyStream;

// A connected client on the fake clock; the receiving thread starts once the server speaks.
class SendLoop : public testing::Test, public ClientFixture {
 protected:
  SendLoop() {
    startReceiving = false;
    Start();
  }
  // What the client sent, through the engine's counts of the sockets this process opened.
  static uint64_t BytesOut() {
    return orvex::net::TcpConnection::ClientBytes().out +
           orvex::net::UdpEndpoint::ClientBytes().out;
  }
  uint64_t SendFrame() {
    const uint64_t before = BytesOut();
    session->client->Send();
    return BytesOut() - before;
  }
  Bytes Tcp(size_t n) { return session->connection->ReadBytes(n); }
  Bytes Datagram() { return session->server.NextDatagram().value().bytes; }
};

// Each queued action is one record, uploaded once, in order per entity, never interleaved; only
// the pending flag starts an upload. The mods' records follow, in one flush after the last mod.
TEST_F(SendLoop, ActionsThenModuleRecordsLeaveInOneFlush) {
  auto first = MakeEntity(EntityId(1), "ship"), second = MakeEntity(EntityId(2), "ship");
  auto unflagged = MakeEntity(EntityId(3), "ship"), flaggedEmpty = MakeEntity(EntityId(4), "ship");
  QueueAction(*first, Pattern(3, 0x10));
  QueueAction(*second, Pattern(6, 0xB0));
  QueueAction(*first, {});
  QueueAction(*first, Pattern(300, 0x20));
  unflagged->pendingActions.emplace_back();  // queued without raising the flag
  flaggedEmpty->hasPendingActions = true;
  LoadSendMod("TEST_alpha", [](WriteOnlyStream& r, WriteOnlyStream&) { WriteBytes(r, {5, 6}); });
  size_t arrivedBeforeLastMod = 0;
  LoadSendMod("TEST_beta", [&](WriteOnlyStream& reliable, WriteOnlyStream&) {
    arrivedBeforeLastMod = session->connection->ReadAvailable(100, 100).size();
    WriteBytes(reliable, {7});
  });

  const Bytes firsts = ActionRecord(first->id, Pattern(3, 0x10)) + ActionRecord(first->id, {}) +
                       ActionRecord(first->id, Pattern(300, 0x20));
  const Bytes seconds = ActionRecord(second->id, Pattern(6, 0xB0));
  const Bytes mods = ModuleRecord("TEST_alpha", {5, 6}) + ModuleRecord("TEST_beta", {7});
  session->client->Send();
  EXPECT_EQ(arrivedBeforeLastMod, 0u) << "reliable records left before the frame's flush";
  const Bytes sent = Tcp(firsts.size() + seconds.size() + mods.size());
  EXPECT_THAT(sent, testing::AnyOf(firsts + seconds + mods, seconds + firsts + mods)) << Hex(sent);
  EXPECT_FALSE(first->hasPendingActions);
  EXPECT_FALSE(flaggedEmpty->hasPendingActions);
  EXPECT_TRUE(first->pendingActions.empty());
  EXPECT_EQ(unflagged->pendingActions.size(), 1u);

  orvex::engine::UnloadAllMods();
  FakeClock::Advance(1);  // uploaded once: the next silent frame sends only a keep-alive
  SendFrame();
  EXPECT_HEX_EQ(Tcp(1), Bytes{0x03});
}

// A reliable flush ends a record, an unreliable one sends a datagram; an unreliable payload over
// 1366 bytes (1400 with the header) is discarded.
TEST_F(SendLoop, ModuleMessages) {
  const auto both = [](size_t r, size_t u) -> SendScript {  // nothing written: no record
    return [r, u](WriteOnlyStream& rs, WriteOnlyStream& us) {
      WriteBytes(rs, Pattern(r)), WriteBytes(us, Pattern(u));
    };
  };
  const SendScript flushes = [](WriteOnlyStream& r, WriteOnlyStream& u) {
    r.Flush();  // nothing written yet: no record
    WriteBytes(r, Pattern(3)), r.Flush(), WriteBytes(r, Pattern(2));
    WriteBytes(u, Pattern(3)), u.Flush(), WriteBytes(u, Pattern(2));
  };
  const Bytes keepAlive{0x03};
  const auto record = [](size_t n) { return ModuleRecord("TEST_alpha", Pattern(n)); };
  const auto datagram = [](size_t n, const char* mod = "TEST_alpha") {
    return ClientModuleDatagram(mod, Pattern(n));
  };
  const struct {
    const char* name;
    std::vector<std::pair<const char*, SendScript>> mods;
    Bytes tcp;
    std::vector<Bytes> datagrams;
    bool discarded;
  } rows[] = {
      // clang-format off
      {"no send handlers", {{"TEST_mute", nullptr}}, keepAlive, {KeepAliveDatagram()}, false},
      {"both channels", {{"TEST_alpha", both(7, 9)}}, record(7), {datagram(9)}, false},
      {"one datagram per mod in load order", {{"TEST_alpha", both(0, 10)}, {"TEST_mute", nullptr}, {"TEST_beta", both(0, 20)}}, keepAlive, {datagram(10), datagram(20, "TEST_beta")}, false},
      {"flushes split records and datagrams", {{"TEST_alpha", flushes}}, record(3) + record(2), {datagram(3), datagram(2)}, false},
      {"1366 bytes fill a 1400-byte datagram", {{"TEST_alpha", both(0, 1366)}}, keepAlive, {datagram(1366)}, false},
      {"1367 bytes: discarded, the reliable part and the next mod's leave", {{"TEST_alpha", both(6, 1367)}, {"TEST_beta", both(0, 3)}}, record(6), {datagram(3, "TEST_beta")}, true},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start();
    for (const auto& [name, script] : row.mods) LoadSendMod(name, script);
    StderrCapture captured;
    size_t expected = row.tcp.size();
    for (const Bytes& d : row.datagrams) expected += d.size();
    EXPECT_EQ(SendFrame(), expected);
    EXPECT_HEX_EQ(Tcp(row.tcp.size()), row.tcp);
    for (const Bytes& d : row.datagrams) EXPECT_HEX_EQ(Datagram(), d);
    EXPECT_FALSE(session->server.NextDatagram(200)) << "one datagram too many";
    EXPECT_EQ(captured.Text(),
              row.discarded ? "Datagram packet size exceeds 1366 bytes and is therefore discarded\n"
                            : "");
  }
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
      {"exactly the datagram pace", 500, false, false, kNothing, kNothing},
      {"past the datagram pace", 500.001, false, false, kNothing, kKeepAlive},
      {"module datagram replaces it", 1600, false, true, kNothing, kMessage},
      {"without restarting the timer", 1600.5, false, false, kNothing, kKeepAlive},
      {"exactly the TCP pace", 5000, false, false, kNothing, kKeepAlive},
      {"record replaces the TCP one", 5000.001, true, false, kMessage, kNothing},
      {"TCP timer not restarted, datagram pace from the last one", 5000.5, false, false, kKeepAlive, kNothing},
      // clang-format on
  };
  const Bytes tcpOut[] = {{}, {0x03}, ModuleRecord("TEST_alpha", {1, 2})};
  const Bytes udpOut[] = {{}, KeepAliveDatagram(), ClientModuleDatagram("TEST_alpha", {1, 2})};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    FakeClock::At(step.atMs);
    reliable = step.reliable, unreliable = step.unreliable;
    const Bytes &tcp = tcpOut[step.tcp], &udp = udpOut[step.datagram];
    EXPECT_EQ(SendFrame(), tcp.size() + udp.size());
    EXPECT_HEX_EQ(Tcp(tcp.size()), tcp);
    if (!udp.empty()) {
      EXPECT_HEX_EQ(Datagram(), udp);
    }
  }
}

// The silence check starts with the first server message and allows exactly 15 s. A failed check
// sends nothing, runs no mod, leaves actions and the error alone, and every later frame agrees.
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
    EXPECT_EQ(orvex::engine::QuitRequested(), quits);
    EXPECT_EQ(modRuns, quits ? 0 : 1);
    EXPECT_EQ(bool(entity->hasPendingActions), quits);
    if (quits) {
      EXPECT_EQ(SendFrame(), 0u);
    }
    EXPECT_EQ(captured.Text(), quits ? row.line + row.line : "");
    EXPECT_EQ(client::Client::error, "earlier loss");
  }
}

}  // namespace
