// Datagram intake: drop reasons, signs of life, sequence and environment filters, hand-over.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "ClientSession.h"
#include "FakeClock.h"
#include "GAME_Mod.h"
#include "Game.h"
#include "Hex.h"
#include "StderrCapture.h"
#include "TestMods.h"
#include "Wait.h"

namespace {

using namespace testlib;
using Counter = std::atomic<uint64_t> client::Counters::*;

const Bytes kMagic = TextBytes("TOVRANE!");

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes Transforms(uint64_t sequence, double time, double x, int32_t divisor = 1,
                 uint64_t parentEnvironment = 0) {
  wire::TransformRecord record;
  record.id = EntityId(1);
  record.position = glm::dvec3(x, 0, 0);
  return wire::TransformsDatagram({time, sequence, parentEnvironment, 0, divisor}, {}, {record});
}

Bytes Physics(uint64_t sequence, double time, uint64_t parentEnvironment = 0,
              uint64_t relativeEnvironment = 0) {
  return wire::PhysicsDatagram({time, sequence, parentEnvironment, relativeEnvironment, 1},
                               {{EntityId(1), {time, 0, 0}, {}}});
}

class DatagramIntake : public testing::Test {
 protected:
  void Start() {
    session.reset();
    ResetClientState();
    FakeClock::Install();  // the receive stamp and the liveness check read it
    RecorderMod::Install();
    ship = MakeEntity(EntityId(1), "ship");
    session = std::make_unique<Session>();
    session->LearnDatagramAddress();
  }
  const client::Counters& Counters() { return session->Client().GetCounters(); }

  CleanClientState clean;
  std::unique_ptr<Session> session;
  game::entity::ClientSideEntity::Ptr ship;
};

// Each row is sent 20 s after the last sign of life: a datagram that counts as one keeps
// the send step from giving up on the server.
TEST_F(DatagramIntake, DropReasons) {
  Bytes foreignMagic = Transforms(9, 5.0, 3);
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
      {"foreign sender", Transforms(9, 5.0, 3), true, &client::Counters::droppedSender, false,
       "Client received UDP packet from wrong ip address\n"},
      {"stale sequence", Transforms(4, 5.0, 3), false, &client::Counters::droppedStale, true, ""},
      {"foreign physics", Physics(9, 1.0, 77), false, &client::Counters::droppedForeign, true, ""},
      {"magic alone", kMagic, false, nullptr, true, ""},
      {"unknown code", kMagic + Bytes{0x99}, false, nullptr, true, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Start();
    session->SendDatagram(Transforms(5, 1.0, 1));  // stamped at 0 s; sequence 5
    EXPECT_EQ(Game::RunSynchronized(), 1u);
    FakeClock::Advance(20000);
    const uint64_t before = row.counter ? (Counters().*row.counter).load() : 0;
    const uint64_t shortOnes = Counters().droppedShort;
    StderrCapture captured;
    if (row.fromStranger) {
      session->server.SendDatagramFrom("127.0.0.2", session->clientAddress, session->clientPort,
                                       row.bytes);
    } else {
      session->server.SendDatagram(session->clientAddress, session->clientPort, row.bytes);
    }
    // A short datagram, dropped before the stamp, is the barrier.
    session->server.SendDatagram(session->clientAddress, session->clientPort, Bytes(7, 'T'));
    const uint64_t barrier = shortOnes + (row.counter == &client::Counters::droppedShort ? 2 : 1);
    ASSERT_TRUE(WaitUntil([&] { return Counters().droppedShort >= barrier; }));
    if (row.counter) {
      EXPECT_EQ(Counters().*row.counter, before + (barrier - shortOnes));
    }
    EXPECT_EQ(Game::RunSynchronized(), 0u);
    EXPECT_EQ(Game::timestamp, 1.0);
    EXPECT_EQ(captured.Text(), row.text);
    StderrCapture quiet;
    session->Client().Send();
    EXPECT_EQ(Game::QuitRequested(), !row.signOfLife);
  }
}

// One sequence counter per kind, tested only for divisor 1, where the datagram also sets
// the server time; foreign physics moves its counter and time, then is dropped; foreign
// transforms are taken (their records clear targets).
TEST_F(DatagramIntake, SequenceAndEnvironmentSteps) {
  Start();
  Game::parentEnvironmentId = 10;
  const struct {
    const char* name;
    Bytes bytes;
    size_t applied;
    double timestamp;
  } steps[] = {
      {"first transforms", Transforms(5, 50, 50, 1, 10), 1, 50},
      {"equal sequence", Transforms(5, 51, 51, 1, 10), 1, 51},
      {"older sequence", Transforms(4, 40, 40, 1, 10), 0, 51},
      {"newer sequence", Transforms(6, 60, 60, 1, 10), 1, 60},
      {"divisor 2: no sequence, no time", Transforms(0, 1, 1, 2, 10), 1, 60},
      {"divisor 2 left the counter at 6", Transforms(5, 52, 52, 1, 10), 0, 60},
      {"physics counted apart", Physics(3, 70, 10), 1, 70},
      {"older physics", Physics(2, 71, 10), 0, 70},
      {"foreign physics", Physics(9, 90, 11), 0, 90},
      {"stale after the foreign 9", Physics(8, 80, 10), 0, 90},
      {"physics 9", Physics(9, 91, 10), 1, 91},
      {"foreign relative environment", Physics(10, 92, 10, 5), 0, 92},
      {"foreign transforms", Transforms(7, 92, 92, 1, 11), 1, 92},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    session->SendDatagram(step.bytes);
    EXPECT_EQ(Game::RunSynchronized(), step.applied);
    EXPECT_EQ(Game::timestamp, step.timestamp);
  }
  EXPECT_EQ(glm::dvec3(ship->velocity).x, 91.0);

  Game::_is_server = true;  // a process that hosts the server never takes the server time
  session->SendDatagram(Transforms(8, 200, 0, 1, 10));
  session->SendDatagram(Physics(10, 201, 10));
  EXPECT_EQ(Game::RunSynchronized(), 2u);
  EXPECT_EQ(Game::timestamp, 92.0);
}

TEST_F(DatagramIntake, ModuleDatagramsGoStraightToTheirHandler) {
  Start();
  GAME_Mod::Load(std::make_shared<GAME_Mod>("TEST_nohandler"));
  const Bytes payload{0x44, 0x00, 0x01};
  for (const char* module : {"NONE_loaded", "TEST_nohandler", RecorderMod::kName}) {
    session->SendDatagram(wire::ModuleDatagram(orvex::modular::ModuleID(module), payload));
  }
  EXPECT_EQ(RecorderMod::Payloads(), std::vector<Bytes>{payload});
  EXPECT_EQ(Game::RunSynchronized(), 0u) << "module handlers do not wait for the game thread";
}

}  // namespace
