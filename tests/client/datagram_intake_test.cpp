// Datagrams: drop reasons, signs of life, sequence and environment filters, the state passes.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "ClientSession.h"
#include "FakeClock.h"
#include "GAME_Mod.h"
#include "Game.h"
#include "Hex.h"
#include "StderrCapture.h"
#include "Wait.h"
#include "client/StatePasses.h"
#include "game/Host.h"

namespace {

using namespace testlib;
using Counter = std::atomic<uint64_t> client::Counters::*;

Bytes Transforms(uint64_t sequence, double time, int32_t divisor = 1, uint64_t environment = 10) {
  return wire::TransformsDatagram({time, sequence, environment, 0, divisor}, {},
                                  {{EntityId(1), {time, 0, 0}}});
}

Bytes Physics(uint64_t sequence, double time, uint64_t environment = 10, uint64_t relative = 0) {
  return wire::PhysicsDatagram({time, sequence, environment, relative, 1},
                               {{EntityId(1), {time, 0, 0}, {}}});
}

// Four driven ships in environment 10 (the receive stamp and the liveness check read the
// fake clock); the client's datagram address is known.
class DatagramIntake : public testing::Test, public ClientFixture {
 protected:
  void Start() {
    Fresh();
    Game::parentEnvironmentId = 10;
    for (uint64_t n = 4; n >= 1; --n) ship = MakeEntity(EntityId(n), "ship");
    session = std::make_unique<Session>();
    session->LearnDatagramAddress();
  }
  const client::Counters& Counters() { return session->client->GetCounters(); }

  game::entity::ClientSideEntity::Ptr ship;
};

// Each row is sent 20 s after the last sign of life: a datagram that counts as one keeps the send
// step from giving up on the server. None shuts out the server's next state (found: a stranger's
// forged sequence did).
TEST_F(DatagramIntake, DropReasons) {
  Bytes foreignMagic = Transforms(9, 5.0);
  foreignMagic[7] = '?';
  const struct {
    const char* name;
    Bytes bytes;
    bool fromStranger;
    Counter counter;  // null: taken in
    bool signOfLife;
    const char* text;
  } rows[] = {
      {"short", Bytes(7, 'T'), false, &client::Counters::droppedShort, false, ""},
      {"foreign magic", foreignMagic, false, &client::Counters::droppedMagic, false, ""},
      {"foreign sender", Transforms(~0ull >> 1, 5.0), true, &client::Counters::droppedSender, false,
       "Client received UDP packet from wrong ip address\n"},
      {"stale sequence", Transforms(4, 5.0), false, &client::Counters::droppedStale, true, ""},
      {"foreign physics", Physics(9, 1.0, 77), false, &client::Counters::droppedForeign, true, ""},
      {"magic alone", TextBytes("TOVRANE!"), false, nullptr, true, ""},
      {"unknown code", TextBytes("TOVRANE!\x99"), false, nullptr, true, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start();
    session->SendDatagram(Transforms(5, 1.0));  // stamped at 0 s; sequence 5
    EXPECT_EQ(orvex::engine::RunSynchronized(), 1u);
    FakeClock::Advance(20000);
    const uint64_t before = row.counter ? (Counters().*row.counter).load() : 0;
    const uint64_t shortOnes = Counters().droppedShort;
    StderrCapture captured;
    const auto& address = session->clientAddress;
    if (row.fromStranger) {
      session->server.SendDatagramFrom("127.0.0.2", address, session->clientPort, row.bytes);
    } else {
      session->server.SendDatagram(address, session->clientPort, row.bytes);
    }
    // A short datagram, dropped before the stamp, is the barrier.
    session->server.SendDatagram(address, session->clientPort, Bytes(7, 'T'));
    const uint64_t barrier = shortOnes + (row.counter == &client::Counters::droppedShort ? 2 : 1);
    ASSERT_TRUE(WaitUntil([&] { return Counters().droppedShort >= barrier; }));
    if (row.counter) {
      EXPECT_EQ(Counters().*row.counter, before + (barrier - shortOnes));
    }
    EXPECT_EQ(orvex::engine::RunSynchronized(), 0u);
    EXPECT_EQ(Game::timestamp, 1.0);
    EXPECT_EQ(captured.Text(), row.text);
    StderrCapture quiet;
    session->client->Send();
    EXPECT_EQ(orvex::engine::QuitRequested(), !row.signOfLife);
    session->SendDatagram(Transforms(6, 2.0));
    EXPECT_EQ(orvex::engine::RunSynchronized(), 1u);
  }
}

// One sequence counter per kind, for divisor 1 only, which also sets the server time; foreign
// physics moves its counter and time, then is dropped; foreign transforms are taken.
TEST_F(DatagramIntake, SequenceAndEnvironmentSteps) {
  Start();
  const struct {
    const char* name;
    Bytes bytes;
    size_t applied;
    double timestamp;
  } steps[] = {
      {"first transforms", Transforms(5, 50), 1, 50},
      {"equal sequence", Transforms(5, 51), 1, 51},
      {"divisor 2: no sequence, no time", Transforms(0, 1, 2), 1, 51},
      {"older sequence", Transforms(4, 40), 0, 51},
      {"physics counted apart", Physics(3, 70), 1, 70},
      {"foreign physics", Physics(9, 90, 11), 0, 90},
      {"stale after the foreign 9", Physics(8, 80), 0, 90},
      {"foreign relative environment", Physics(10, 92, 10, 5), 0, 92},
      {"foreign transforms", Transforms(7, 93, 1, 11), 1, 93},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    session->SendDatagram(step.bytes);
    EXPECT_EQ(orvex::engine::RunSynchronized(), step.applied);
    EXPECT_EQ(Game::timestamp, step.timestamp);
  }
  EXPECT_EQ(glm::dvec3(ship->velocity).x, 70.0);
}

using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::ReadOnlyStream;

void RunTransforms(const std::vector<wire::TransformRecord>& records, Id parent = {}) {
  const Bytes datagram = wire::TransformsDatagram({}, Id{}, records);
  const Bytes body(datagram.begin() + wire::kTransformsHeaderSize, datagram.end());
  client::TransformPass(ReadOnlyStream(body.data(), body.size()), 1, parent, false)();
}

void RunPhysics(const std::vector<wire::PhysicsRecord>& records) {
  const Bytes datagram = wire::PhysicsDatagram({}, records);
  const Bytes body(datagram.begin() + wire::kPhysicsHeaderSize, datagram.end());
  client::PhysicsPass(ReadOnlyStream(body.data(), body.size()))();
}

Orientation Rotation(double degrees, glm::dvec3 axis) {
  axis = glm::normalize(axis) * std::sin(degrees * M_PI / 360.0);
  return Orientation{std::cos(degrees * M_PI / 360.0), axis.x, axis.y, axis.z};
}

class StatePass : public testing::Test {
  CleanClientState clean;
};

// The ship sits under `old`; `old` and `fresh` are placed apart, rotated and nested so that a
// wrong order of the matrix product shows.
TEST_F(StatePass, TransformSnapsTargetsOrReexpresses) {
  const Id old = EntityId(21), fresh = EntityId(22), unknown = EntityId(404);
  MakeEntity(EntityId(20), "static", {}, {-4, 1, 2}, Rotation(30, {1, 0, 0}));
  MakeEntity(old, "static", EntityId(20), {10, 0, 0}, Rotation(90, {0, 0, 1}));
  MakeEntity(fresh, "static", {}, {0, 5, -3}, Rotation(-45, {0, 1, 1}));
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  enum Outcome { kSnap, kTarget, kKeepPlace };
  const struct {
    const char* name;
    Id from;
    bool hasTarget;
    Id to;
    Outcome outcome;
  } rows[] = {
      {"no target yet", old, false, old, kSnap},
      {"same parent with a target", old, true, old, kTarget},
      {"both parents known", old, true, fresh, kKeepPlace},
      {"new parent unknown", old, true, unknown, kSnap},
      {"old parent unknown", unknown, true, fresh, kSnap},
      {"into the environment", old, true, Id{5, 0}, kSnap},
      {"out of the environment", Id{}, true, fresh, kSnap},
  };
  const glm::dvec3 sent{7, 8, 9}, start{1, 2, 3};
  const Orientation turn{0, 0, 1, 0}, startTurn = Rotation(60, {1, 1, 0});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ship->parentId = row.from, ship->position = start, ship->orientation = startTurn;
    ship->hasTarget = row.hasTarget, ship->stale = true;
    const glm::dmat4 before = ship->GetAbsoluteTransformInEnvironment();
    RunTransforms({{EntityId(1), sent, {0, 0, 1, 0}}}, row.to);

    EXPECT_EQ(Id(ship->parentId), row.to);
    EXPECT_EQ(glm::dvec3(ship->targetPosition), sent);
    EXPECT_EQ(Orientation(ship->targetOrientation), turn);
    EXPECT_TRUE(ship->hasTarget);
    EXPECT_FALSE(ship->stale);
    if (row.outcome == kKeepPlace) {
      const glm::dmat4 now = ship->GetAbsoluteTransformInEnvironment();
      for (int i = 0; i < 16; ++i) EXPECT_NEAR(now[i / 4][i % 4], before[i / 4][i % 4], 1e-5);
      EXPECT_NE(glm::dvec3(ship->position), sent) << "snapped, not re-expressed";
      EXPECT_NE(glm::dvec3(ship->position), start) << "not re-expressed at all";
    } else {
      EXPECT_EQ(glm::dvec3(ship->position), row.outcome == kSnap ? sent : start);
      EXPECT_EQ(Orientation(ship->orientation), row.outcome == kSnap ? turn : startTurn);
    }
  }
}

// A NaN in any field of record 3 of 4 ends the pass with one line; records 1 and 2 stay.
// Fields 0-6: the transform's position and orientation; 7, 8: physics velocity, extra.
// Parents that a datagram reads and moves: a record that moves an entity on an old parent's
// chain changes what the next records re-express under (found: a pass that remembered a
// parent's transform past such a move put the later children back where the chain was); a
// chain of any depth, and a cycle, are followed as GetAbsoluteTransformInEnvironment does.
TEST_F(StatePass, ReexpressionFollowsWhereTheRecordsBeforeLeftTheParents) {
  const Id top = EntityId(40), mover = EntityId(41), old = EntityId(42), cycle = EntityId(43);
  MakeEntity(top, "static", {}, {1, 2, 3}, Rotation(40, {0, 0, 1}));
  MakeEntity(mover, "ship", top, {0, 6, 0}, Rotation(25, {1, 0, 0}));  // snaps: no target yet
  MakeEntity(old, "static", mover, {2, 0, 1}, Rotation(-60, {0, 1, 0}));
  MakeEntity(cycle, "static", cycle, {5, 5, 5}, Rotation(10, {0, 0, 1}));  // its own parent
  Id deep = top;
  for (uint64_t n = 100; n < 400; ++n) {
    MakeEntity(EntityId(n), "static", deep, {1, 0, 0}, Rotation(1, {0, 1, 0}));
    deep = EntityId(n);
  }
  const struct {
    Id from;
    glm::dvec3 position;
  } children[] = {{old, {1, 1, 0}}, {deep, {0, 0, 2}}, {cycle, {3, 0, 0}}, {old, {0, 2, 2}}};
  std::vector<wire::TransformRecord> records;
  std::vector<glm::dmat4> wanted;  // where each child is in the world when its record comes
  for (uint64_t i = 0; i < 4; ++i) {
    const ClientSideEntity::Ptr child =
        MakeEntity(EntityId(50 + i), "ship", children[i].from, children[i].position,
                   Rotation(15.0 * i, {1, 1, 1}));
    child->hasTarget = true;
    wanted.push_back(child->GetAbsoluteTransformInEnvironment());
    records.push_back({EntityId(50 + i), {9, 9, 9}});
    if (i == 1) records.push_back({mover, {-7, 0, 4}});  // moves `old`, before the last child
  }
  // The last child's record comes after the move: its parent's new place counts.
  const ClientSideEntity::Ptr last = FindEntity(EntityId(53));
  MakeEntity(EntityId(60), "static", top, {-7, 0, 4});  // the mover, snapped to its record
  MakeEntity(EntityId(61), "static", EntityId(60), {2, 0, 1}, Rotation(-60, {0, 1, 0}));
  last->parentId = EntityId(61);
  wanted[3] = last->GetAbsoluteTransformInEnvironment();
  last->parentId = old;
  RunTransforms(records, top);
  for (uint64_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    const glm::dmat4& want = wanted[i];
    const glm::dmat4 now = FindEntity(EntityId(50 + i))->GetAbsoluteTransformInEnvironment();
    for (int k = 0; k < 16; ++k) EXPECT_NEAR(now[k / 4][k % 4], want[k / 4][k % 4], 1e-5) << k;
  }
}

TEST_F(StatePass, NaNEndsThePassAndKeepsWhatWasApplied) {
  for (int field = 0; field < 9; ++field) {
    SCOPED_TRACE(field);
    ResetClientState();
    std::vector<ClientSideEntity::Ptr> ships;
    std::vector<wire::TransformRecord> transforms;
    std::vector<wire::PhysicsRecord> motions;
    for (uint64_t n = 1; n <= 4; ++n) {
      ships.push_back(MakeEntity(EntityId(n), "ship"));
      transforms.push_back({EntityId(n), {double(n), 0, 0}});
      motions.push_back({EntityId(n), {double(n), 0, 0}, {0, 0, double(n)}});
    }
    const bool physics = field >= 7;
    if (physics) {
      (field == 7 ? motions[2].velocity : motions[2].extra).z = NAN;
    } else if (field < 3) {
      transforms[2].position[field] = NAN;
    } else {
      transforms[2].orientation[field - 3] = NAN;
    }
    StderrCapture captured;
    physics ? RunPhysics(motions) : RunTransforms(transforms);
    EXPECT_EQ(captured.Text(), physics ? "Client Received NaN physics data\n"
                                       : "Client Received NaN transform data\n");
    for (size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(physics ? glm::dvec3(ships[i]->velocity).x : double(ships[i]->hasTarget),
                i < 2 ? (physics ? double(i + 1) : 1.0) : 0.0)
          << "record " << i + 1;
    }
  }
}

// Hostile servers (each case a fault once found): state for four ships of environment 10.
Bytes Records(uint64_t sequence, Id parent, const std::vector<wire::TransformRecord>& records) {
  return wire::TransformsDatagram({0, sequence, 10, 0, 1}, parent, records);
}
wire::TransformRecord At(uint64_t n, glm::dvec3 position) {
  return {EntityId(n), position};
}
glm::dvec3 TargetOf(uint64_t n) {
  return glm::dvec3(FindEntity(EntityId(n))->targetPosition);
}

TEST_F(DatagramIntake, HostileTruncationsAreHarmlessAndTheNextWholeDatagramApplies) {
  Start();
  const Bytes transforms = Records(5, Id{}, {At(1, {1, 2, 3}), At(2, {4, 5, 6})});
  const Bytes physics =
      wire::PhysicsDatagram({0, 5, 10, 0, 1}, {{EntityId(1), {1, 1, 1}, {2, 2, 2}}});
  for (const Bytes& whole : {transforms, physics}) {
    for (size_t length = 0; length <= whole.size(); ++length) {
      session->SendDatagram(Prefix(whole, length));
      orvex::engine::RunSynchronized();
    }
  }
  EXPECT_EQ(TargetOf(1), glm::dvec3(1, 2, 3));
  EXPECT_EQ(TargetOf(2), glm::dvec3(4, 5, 6));
  EXPECT_EQ(glm::dvec3(FindEntity(EntityId(1))->velocity), glm::dvec3(1, 1, 1));
}

// State faster than the game thread applies it: the delivery thread is held back at the
// game's queue cap (the datagrams wait in the socket meanwhile), and once the game thread
// runs again every datagram is taken in and the newest state applies.
TEST_F(DatagramIntake, HostileStateFloodWaitsAtTheQueueCap) {
  Start();
  orvex::engine::SetSynchronizeBound(20, std::chrono::minutes(1));
  session->LearnDatagramAddress();
  for (uint64_t s = 1; s <= 100; ++s) {
    session->server.SendDatagram(session->clientAddress, session->clientPort,
                                 Records(s, Id{}, {At(1, {s, 0, 0})}));
  }
  ASSERT_TRUE(testlib::WaitUntil([] { return orvex::engine::SynchronizeFigures().holding == 1; }));
  EXPECT_EQ(orvex::engine::SynchronizeFigures().queued, 20u);
  ASSERT_TRUE(testlib::WaitUntil([&] {
    orvex::engine::RunSynchronized();
    const orvex::engine::SynchronizeCounts n = orvex::engine::SynchronizeFigures();
    return Counters().datagramsAccepted == 100 && n.queued == 0 && n.holding == 0;
  }));
  EXPECT_EQ(orvex::engine::SynchronizeFigures().overCap, 0u);
  EXPECT_EQ(TargetOf(1), glm::dvec3(100, 0, 0));
}

// Datagrams keep arriving, state and module messages alike, while the client is destroyed:
// every module message handler that runs sees the client whole (_instance still set: it
// is cleared only once no callback can start), and the sanitizer runs see no access to a
// member that is gone. (Found: a destructor that let the socket's own destructor stop
// delivery ran callbacks on a client whose later members had died.)
std::atomic<uint64_t> witnessed{0}, witnessedGone{0};
void Witness(orvex::filesystem::ReadOnlyStream&) {
  ++witnessed;
  if (client::Client::_instance == nullptr) ++witnessedGone;
}

TEST_F(DatagramIntake, DatagramsArrivingWhileTheClientIsDestroyedSeeItWhole) {
  const orvex::modular::ModuleID witness("TEST_witness");
  for (int round = 0; round < 50; ++round) {
    SCOPED_TRACE(round);
    Start();
    auto mod = std::make_shared<GAME_Mod>("TEST_witness");
    mod->clientMessageHandler = &Witness;
    orvex::engine::LoadMod(mod);
    std::atomic<bool> stop{false};
    std::thread flood([&, address = session->clientAddress, port = session->clientPort] {
      for (uint64_t n = 1; n <= 50000 && !stop; ++n) {
        session->server.SendDatagram(
            address, port, n % 2 ? Transforms(n, 1.0) : wire::ModuleDatagram(witness, {}));
      }
    });
    ASSERT_TRUE(WaitUntil([&] { return witnessed > 10; }));
    session->StopReceiving();
    session->client.reset();
    stop = true;
    flood.join();
  }
  EXPECT_EQ(witnessedGone, 0u);
}

}  // namespace
