// Hostile servers (each case a fault once found): no crash, hang or memory that follows a count.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ClientSession.h"
#include "FakeClock.h"
#include "Game.h"
#include "StderrCapture.h"
#include "Wait.h"
#include "game/Networking.h"

namespace {

using game::entity::Id;
using namespace testlib;
using testing::HasSubstr;
using wire::ByteWriter;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

Bytes Prefix(const Bytes& whole, size_t length) {
  return Bytes(whole.begin(), whole.begin() + static_cast<long>(length));
}

size_t CountOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

Bytes Creation(uint64_t n) {
  return Create(
      {EntityId(n), wire::ModuleID(kEntityMod), "ship", {}, {1, 2, 3}, {}, 1, 0, {1, 2, 3, 4}});
}

// A creation whose fields end where the data's count begins.
ByteWriter CreateHead(Id id) {
  ByteWriter w;
  w.U8(networking::MSG_ENTITY_CREATE).Entity(id).Module(wire::ModuleID(kEntityMod)).Text("ship");
  return w.Entity(Id{}).Vec3({1, 2, 3}).Quat({}).U8(1).U8(0);
}

Bytes Transforms(uint64_t sequence, Id parent, const std::vector<wire::TransformRecord>& records) {
  return wire::TransformsDatagram({0, sequence, 0, 0, 1}, parent, records);
}

wire::TransformRecord At(uint64_t n, glm::dvec3 position) {
  return {EntityId(n), position};
}

glm::dvec3 TargetOf(uint64_t n) {
  return glm::dvec3(FindEntity(EntityId(n))->targetPosition);
}

// Every case runs on the fake clock: the send step's keep-alive timers are statics of the
// process, and the outbound suites count on their having started on that clock.
class Hostile : public testing::Test {
 protected:
  Hostile() { Fresh(); }
  static void Fresh() {
    ResetClientState();
    FakeClock::Install();
    InstallTestMods();
  }
  CleanClientState clean;
};

// Each row ends the receiving thread with one line that names the count (or the closed
// connection); nothing half-read is carried out and the game runs on with the replica it has.
TEST_F(Hostile, ReliableHugeCountsAndTruncationsEndTheThreadWithOneLine) {
  using namespace networking;
  const std::string closed = "Connection closed by peer";
  struct Row {
    std::string name;
    Bytes message;
    std::string line;  // the closed connection: the server closes after the message
  };
  // clang-format off
  std::vector<Row> rows = {
      {"world name", ByteWriter().U8(MSG_WORLD).U32(0xFFFFFFFF), "4294967295"},
      {"privilege text", ByteWriter().U8(MSG_ADMIN_STATUS).U32(0x80000000), "2147483648"},
      {"interface name", ByteWriter().U8(MSG_ENTITY_CREATE).Entity(EntityId(2)).Module(wire::ModuleID(kEntityMod)).U32(~0u), "4294967295"},
      {"creation data", CreateHead(EntityId(2)).U32(0x80000000), "2147483648"},
      {"update data", ByteWriter().U8(MSG_ENTITY_UPDATE).Entity(EntityId(1)).Entity(Id{}).Vec3({}).Quat({}).U8(0).U8(1).U32(~0u), "4294967295"},
      {"module payload", ByteWriter().U8(MSG_FOR_MODULE).Module(wire::ModuleID(kRecorderMod)).U32(0x80000000), "2147483648"},
      // 16 MiB is accepted as a count; 64 KiB of it arrive, then the connection ends.
      {"count whose bytes never come", ByteWriter().U8(MSG_WORLD).U32(16u << 20).Append(Bytes(64 << 10, 'w')), closed},
  };
  // clang-format on
  const Bytes creation = Creation(2);
  for (size_t length = 1; length < creation.size(); ++length) {
    rows.push_back(
        {"creation cut after " + std::to_string(length), Prefix(creation, length), closed});
  }
  const long before = PeakResidentMb();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Fresh();
    StderrCapture capture;  // before any thread of the client runs
    Session session;
    session.SendReliable(Creation(1));
    Game::_current_world = "Harbour";
    session.Connection().Send(row.message);
    if (row.line == closed) session.Connection().Close();
    ASSERT_TRUE(capture.WaitFor("ERROR: "));
    session.StopReceiving();
    EXPECT_EQ(CountOf(capture.Text(), "ERROR: "), 1u);
    EXPECT_THAT(capture.Text(), HasSubstr(row.line));
    EXPECT_EQ(FindEntity(EntityId(2)), nullptr);
    EXPECT_NE(FindEntity(EntityId(1)), nullptr);
    EXPECT_EQ(Game::_current_world, "Harbour");
    EXPECT_TRUE(RecordedPayloads().empty());
    EXPECT_TRUE(client::Client::error.empty());
  }
  EXPECT_LT(PeakResidentMb() - before, 256) << "MiB: memory followed a count";
}

// A connection that ends mid-message, or a server that stops reading (frames of a quarter
// MiB fill the kernel's buffers; a stalled flush gets 5 s): the game goes on calling Send()
// and, once a flush fails, hears why it ends; later frames fail at once.
TEST_F(Hostile, ALostOrStalledConnectionEndsTheGameWithDisconnected) {
  for (const bool stalled : {false, true}) {
    SCOPED_TRACE(stalled ? "server stops reading" : "connection ends mid-message");
    Fresh();
    LoadSendMod("HOST_chatter", [stalled](auto& reliable, auto&) {
      WriteBytes(reliable, Bytes(stalled ? 256 << 10 : 1, 0x5A));
    });
    StderrCapture capture;
    Session session;
    if (!stalled) {
      session.Connection().Send(Prefix(CreateHead(EntityId(3)), 20));
      session.Connection().Close();
      ASSERT_TRUE(capture.WaitFor("ERROR: Connection closed by peer"));
    }
    EXPECT_TRUE(WaitUntil(
        [&] {
          session.Client().Send();
          return !client::Client::error.empty();
        },
        60000));
    EXPECT_EQ(client::Client::error, "Disconnected from server");
    EXPECT_TRUE(Game::QuitRequested());
    if (stalled) {
      EXPECT_THAT(capture.Text(), HasSubstr("stalled"));
    }
    session.Client().Send();
    EXPECT_EQ(client::Client::error, "Disconnected from server");
  }
}

TEST_F(Hostile, ReliableNaNAndInfinityAreTakenAsTheyComeAndTheNextMessageRepairs) {
  Session session;
  wire::EntityCreate create{EntityId(1),
                            wire::ModuleID(kEntityMod),
                            "ship",
                            {},
                            {kNaN, kInf, -kInf},
                            {kInf, kNaN, 0, 0},
                            1,
                            0,
                            {}};
  session.SendReliable(Create(create));
  const auto entity = FindEntity(EntityId(1));
  ASSERT_NE(entity, nullptr);
  EXPECT_TRUE(std::isnan(glm::dvec3(entity->position).x));
  EXPECT_EQ(glm::dvec3(entity->position).y, kInf);

  wire::EntityUpdate repair;
  repair.id = EntityId(1);
  repair.position = {4, 5, 6};
  session.SendReliable(Move({EntityId(1), 0, {kInf, kNaN, 1}, {kNaN, 0, 0, 0}}) + Update(repair));
  EXPECT_EQ(glm::dvec3(entity->position), glm::dvec3(4, 5, 6));
  EXPECT_EQ(glm::dvec3(entity->targetPosition), glm::dvec3(4, 5, 6));
  EXPECT_EQ(game::entity::Orientation(entity->orientation), game::entity::Orientation());
}

TEST_F(Hostile, EveryUnlistedCodeIsOneByteAndTheStreamGoesOn) {
  using namespace networking;
  const std::vector<int> listed = {MSG_DISCONNECT,    MSG_WORLD,          MSG_ADMIN_STATUS,
                                   MSG_ENTITY_CREATE, MSG_ENTITY_DESTROY, MSG_ENTITY_UPDATE,
                                   MSG_ENTITY_MOVE,   MSG_FOR_MODULE};
  Bytes unlisted;
  for (int code = 0; code < 256; ++code) {
    if (std::find(listed.begin(), listed.end(), code) == listed.end()) unlisted.push_back(code);
  }
  StderrCapture capture;
  Session session;
  session.SendReliable(unlisted + World("after") + Creation(1));
  EXPECT_EQ(Game::_current_world, "after");
  EXPECT_NE(FindEntity(EntityId(1)), nullptr);
  EXPECT_FALSE(client::Client::IsAdmin());
  EXPECT_EQ(capture.Text(), "");
}

// Datagram cases: four driven entities, a capture made before the client's threads.
class HostileDatagrams : public Hostile {
 protected:
  HostileDatagrams() {
    session->LearnDatagramAddress();
    for (uint64_t n = 1; n <= 4; ++n) session->SendReliable(Creation(n));
  }
  StderrCapture capture;
  std::unique_ptr<Session> session = std::make_unique<Session>();
};

TEST_F(HostileDatagrams, EveryTruncationIsHarmlessAndTheNextWholeDatagramApplies) {
  const Bytes transforms = Transforms(5, Id{}, {At(1, {1, 2, 3}), At(2, {4, 5, 6})});
  const Bytes physics =
      wire::PhysicsDatagram({0, 5, 0, 0, 1}, {{EntityId(1), {1, 1, 1}, {2, 2, 2}}});
  for (const Bytes& whole : {transforms, physics}) {
    for (size_t length = 0; length <= whole.size(); ++length) {
      session->SendDatagram(Prefix(whole, length));
      Game::RunSynchronized();
    }
  }
  EXPECT_EQ(TargetOf(1), glm::dvec3(1, 2, 3));
  EXPECT_EQ(TargetOf(2), glm::dvec3(4, 5, 6));
  EXPECT_EQ(glm::dvec3(FindEntity(EntityId(1))->velocity), glm::dvec3(1, 1, 1));
}

// Infinity is taken and NaN ends the datagram (the passes' own cases pin the rest). Entity 3
// then rides on entity 1, at infinity, and moves to entity 4: the re-expression works
// through infinite matrices and must still leave a usable replica.
TEST_F(HostileDatagrams, InfinityAndNaNLeaveAReplicaThatReparentingCanUse) {
  session->SendDatagram(
      Transforms(1, Id{}, {At(1, {kInf, 0, 0}), At(2, {kNaN, 0, 0}), At(3, {3, 3, 3})}));
  Game::RunSynchronized();
  EXPECT_EQ(TargetOf(1).x, kInf);
  EXPECT_EQ(TargetOf(3), glm::dvec3(0.0));
  for (uint64_t sequence = 2; sequence <= 4; ++sequence) {
    session->SendDatagram(
        Transforms(sequence, EntityId(sequence == 2 ? 1 : 4), {At(3, {double(sequence), 0, 0})}));
  }
  Game::RunSynchronized();
  EXPECT_EQ(Id(FindEntity(EntityId(3))->parentId), EntityId(4));
  EXPECT_EQ(TargetOf(3), glm::dvec3(4, 0, 0));
}

TEST_F(HostileDatagrams, AFloodFromAStrangerChangesNothingAndCostsNoMemory) {
  orvex::net::UdpSocket stranger(orvex::net::UdpSocket::BindTag{}, "127.0.0.2", 0, 1400);
  stranger.SetDestination(session->clientAddress, session->clientPort);
  // Well-formed state for a real entity, with a sequence that would shut out the server's.
  const Bytes forged = Transforms(~0ull >> 1, Id{}, {At(1, {99, 99, 99})});
  const long before = PeakResidentMb();
  for (int i = 0; i < 20000; ++i) {
    stranger.Write(forged.data(), forged.size());
    stranger.Flush();
  }
  // Let the client drain the flood first (a slow client loses what the kernel could not
  // queue, and the server's datagram must not be lost with it): until the count stands still.
  uint64_t seen = 0;
  for (int quiet = 0, waited = 0; quiet < 3 && waited < 300; ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const uint64_t now = session->Client().GetCounters().droppedSender;
    quiet = now == seen ? quiet + 1 : 0;
    seen = now;
  }
  session->SendDatagram(Transforms(1, Id{}, {At(1, {1, 1, 1})}));
  EXPECT_EQ(Game::RunSynchronized(), 1u);
  EXPECT_EQ(TargetOf(1), glm::dvec3(1, 1, 1));
  const uint64_t dropped = session->Client().GetCounters().droppedSender;
  EXPECT_GT(dropped, 0u);
  EXPECT_EQ(CountOf(capture.Text(), "Client received UDP packet from wrong ip address\n"), dropped);
  EXPECT_LT(PeakResidentMb() - before, 64);
}

}  // namespace
