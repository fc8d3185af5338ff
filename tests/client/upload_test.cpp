// What one Send() uploads: entity actions and each mod's reliable and unreliable messages.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ClientSession.h"
#include "FakeClock.h"
#include "Hex.h"
#include "StderrCapture.h"
#include "TestMods.h"

namespace {

using namespace testlib;
using orvex::filesystem::WriteOnlyStream;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class Upload : public testing::Test {
 protected:
  Upload() { Start(); }
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

// A frame's bytes for the mods of a row. Traffic on a channel replaces its keep-alive; a
// flush of the reliable stream ends a record, one of the unreliable stream sends a
// datagram; an unreliable payload over 1366 bytes (1400 with the header) is discarded.
TEST_F(Upload, ModuleMessages) {
  const auto reliable = [](size_t n) -> SendScript {
    return [n](WriteOnlyStream& r, WriteOnlyStream&) { WriteBytes(r, Pattern(n)); };
  };
  const auto unreliable = [](size_t n) -> SendScript {
    return [n](WriteOnlyStream&, WriteOnlyStream& u) { WriteBytes(u, Pattern(n)); };
  };
  const auto both = [](size_t r, size_t u) -> SendScript {
    return [r, u](WriteOnlyStream& rs, WriteOnlyStream& us) {
      WriteBytes(rs, Pattern(r));
      WriteBytes(us, Pattern(u));
    };
  };
  const SendScript flushes = [](WriteOnlyStream& r, WriteOnlyStream& u) {
    r.Flush();  // nothing written yet: no record
    WriteBytes(r, Pattern(3));
    r.Flush();
    WriteBytes(r, Pattern(2));
    WriteBytes(u, Pattern(3));
    u.Flush();
    WriteBytes(u, Pattern(2));
  };
  const Bytes tcpKeepAlive{0x03};
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
      {"no send handlers", {{"TEST_mute", nullptr}, {"TEST_quiet", nullptr}}, tcpKeepAlive, {KeepAliveDatagram()}, false},
      {"reliable", {{"TEST_alpha", reliable(5)}}, record(5), {KeepAliveDatagram()}, false},
      {"unreliable", {{"TEST_alpha", unreliable(4)}}, tcpKeepAlive, {datagram(4)}, false},
      {"both channels", {{"TEST_alpha", both(7, 9)}}, record(7), {datagram(9)}, false},
      {"one datagram per mod in load order", {{"TEST_alpha", unreliable(10)}, {"TEST_mute", nullptr}, {"TEST_beta", unreliable(20)}}, tcpKeepAlive, {datagram(10), datagram(20, "TEST_beta")}, false},
      {"flushes split records and datagrams", {{"TEST_alpha", flushes}}, record(3) + record(2), {datagram(3), datagram(2)}, false},
      {"1365 bytes", {{"TEST_alpha", unreliable(1365)}}, tcpKeepAlive, {datagram(1365)}, false},
      {"1366 bytes fill a 1400-byte datagram", {{"TEST_alpha", unreliable(1366)}}, tcpKeepAlive, {datagram(1366)}, false},
      {"1367 bytes: discarded, the reliable part leaves", {{"TEST_alpha", both(6, 1367)}}, record(6), {KeepAliveDatagram()}, true},
      {"1400 bytes: discarded, the next mod's leaves", {{"TEST_alpha", unreliable(1400)}, {"TEST_beta", unreliable(3)}}, tcpKeepAlive, {datagram(3, "TEST_beta")}, true},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start();
    for (const auto& [name, script] : row.mods) LoadSendMod(name, script);
    StderrCapture captured;
    uint64_t expected = row.tcp.size();
    for (const Bytes& d : row.datagrams) expected += d.size();
    EXPECT_EQ(SendFrame(), expected);
    EXPECT_HEX_EQ(Tcp(row.tcp.size()), row.tcp);
    for (const Bytes& d : row.datagrams) EXPECT_HEX_EQ(session->NextDatagram(), d);
    EXPECT_TRUE(session->NoMoreDatagrams());
    EXPECT_EQ(captured.Text(),
              row.discarded ? "Datagram packet size exceeds 1366 bytes and is therefore discarded\n"
                            : "");
  }
}

TEST_F(Upload, DiscardedPayloadDoesNotLeakIntoLaterDatagrams) {
  bool oversized = true;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, oversized ? Pattern(1400) : Pattern(5));
  });
  StderrCapture quiet;
  SendFrame();
  EXPECT_HEX_EQ(session->NextDatagram(), KeepAliveDatagram());
  oversized = false;
  FakeClock::Advance(1);
  SendFrame();
  EXPECT_HEX_EQ(session->NextDatagram(), ClientModuleDatagram("TEST_alpha", Pattern(5)));
}

TEST_F(Upload, StreamsFlushedAfterSendReturnsSendNothing) {
  WriteOnlyStream* reliable = nullptr;
  WriteOnlyStream* unreliable = nullptr;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream& r, WriteOnlyStream& u) {
    reliable = &r;
    unreliable = &u;
  });
  SendFrame();
  Tcp(1);
  session->NextDatagram();

  const uint64_t before = session->Client().GetBytesOut();
  WriteBytes(*reliable, Pattern(8));
  reliable->Flush();
  WriteBytes(*unreliable, Pattern(8));
  unreliable->Flush();
  EXPECT_EQ(session->Client().GetBytesOut(), before);
  // Nor does anything wait in the TCP buffer for the next frame's flush.
  FakeClock::Advance(1);
  EXPECT_EQ(SendFrame(), 0u);
  EXPECT_TRUE(session->NoMoreDatagrams());
  EXPECT_TRUE(session->Connection().ReadAvailable(100, 1000).empty());
}

// Each queued action is one record, uploaded once, in queuing order per entity; an entity's
// records are not interleaved with another's. Only the pending flag starts an upload.
TEST_F(Upload, EntityActions) {
  auto first = MakeEntity(EntityId(1), "ship");
  auto second = MakeEntity(EntityId(2), "ship");
  auto unflagged = MakeEntity(EntityId(3), "ship");
  auto flaggedEmpty = MakeEntity(EntityId(4), "ship");
  QueueAction(*first, Pattern(3, 0x10));
  QueueAction(*second, Pattern(6, 0xB0));
  QueueAction(*first, {});
  QueueAction(*first, Pattern(300, 0x20));
  {
    std::lock_guard<std::mutex> lock(unflagged->actionsMutex);
    unflagged->pendingActions.emplace_back();
  }
  flaggedEmpty->hasPendingActions = true;

  const Bytes firsts = ActionRecord(first->id, Pattern(3, 0x10)) + ActionRecord(first->id, {}) +
                       ActionRecord(first->id, Pattern(300, 0x20));
  const Bytes seconds = ActionRecord(second->id, Pattern(6, 0xB0));
  EXPECT_EQ(SendFrame(), firsts.size() + seconds.size() + KeepAliveDatagram().size());
  const Bytes sent = Tcp(firsts.size() + seconds.size());
  EXPECT_TRUE(sent == firsts + seconds || sent == seconds + firsts) << Hex(sent);
  EXPECT_FALSE(first->hasPendingActions);
  EXPECT_TRUE(first->pendingActions.empty());
  EXPECT_FALSE(flaggedEmpty->hasPendingActions);
  EXPECT_EQ(unflagged->pendingActions.size(), 1u);

  FakeClock::Advance(1);  // uploaded once: the next silent frame sends only a keep-alive
  SendFrame();
  EXPECT_HEX_EQ(Tcp(1), Bytes{0x03});
}

}  // namespace
