// The per-frame send step: one TCP flush per frame, keep-alives on silent channels at
// their pace, the server liveness rule, a broken connection, and the profiler scope around
// it all. Time moves only when a case moves the fake clock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "client/OutboundSupport.h"
#include "support_helpers/StderrCapture.h"

namespace clienttest {

using testing_support::StderrCapture;
namespace {

using orvex::cpu::Profiler;
using orvex::filesystem::WriteOnlyStream;

class FrameFlush : public OutboundTest {};

TEST_F(FrameFlush, ActionsAndModuleMessagesLeaveTogetherAfterTheLastMod) {
  auto entity = MakeBareEntity(1);
  QueueAction(*entity, Pattern(4, 0x01));
  QueueAction(*entity, Pattern(2, 0x02));
  LoadSendMod("TEST_alpha", [](WriteOnlyStream& reliable, WriteOnlyStream&) {
    WriteBytes(reliable, Pattern(3, 0x03));
  });
  size_t arrivedBeforeLastMod = 0;
  LoadSendMod("TEST_beta", [&](WriteOnlyStream& reliable, WriteOnlyStream&) {
    arrivedBeforeLastMod = Server().ReadAvailable(100, 100).size();
    WriteBytes(reliable, Pattern(5, 0x04));
  });

  Client().Send();

  EXPECT_EQ(arrivedBeforeLastMod, 0u) << "reliable records left before the frame's flush";
  const Bytes expected = wire::ByteWriter()
                             .Append(ActionRecord(entity->id, Pattern(4, 0x01)))
                             .Append(ActionRecord(entity->id, Pattern(2, 0x02)))
                             .Append(ModuleRecord("TEST_alpha", Pattern(3, 0x03)))
                             .Append(ModuleRecord("TEST_beta", Pattern(5, 0x04)));
  EXPECT_HEX_EQ(Server().ReadBytes(expected.size()), expected);
}

class KeepAlive : public OutboundTest {};

TEST_F(KeepAlive, SilentFramesSendEachKeepAliveAtItsOwnPace) {
  FakeClock::At(0);
  EXPECT_EQ(SendFrame(), 1 + KeepAliveDatagram().size()) << "the first frame sends both";
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
  EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());

  FakeClock::At(250);
  EXPECT_EQ(SendFrame(), 0u);
  FakeClock::At(500);
  EXPECT_EQ(SendFrame(), 0u) << "exactly the datagram pace is not yet more than it";
  FakeClock::At(500.001);
  EXPECT_EQ(SendFrame(), KeepAliveDatagram().size());
  EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());
  FakeClock::At(1000);
  EXPECT_EQ(SendFrame(), 0u) << "the datagram pace counts from the last datagram keep-alive";
  FakeClock::At(1000.002);
  EXPECT_EQ(SendFrame(), KeepAliveDatagram().size());

  FakeClock::At(5000);
  EXPECT_EQ(SendFrame(), KeepAliveDatagram().size()) << "exactly the TCP pace sends no TCP one";
  FakeClock::At(5000.001);
  EXPECT_EQ(SendFrame(), 1u);
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
}

TEST_F(KeepAlive, ReliableTrafficNeitherSendsNorRestartsTheTcpKeepAlive) {
  auto entity = MakeBareEntity(1);
  bool moduleWrites = false;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream& reliable, WriteOnlyStream&) {
    if (moduleWrites) WriteBytes(reliable, Pattern(2));
  });

  FakeClock::At(0);
  SendFrame();
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});

  FakeClock::At(2000);
  QueueAction(*entity, Pattern(3));
  const Bytes action = ActionRecord(entity->id, Pattern(3));
  EXPECT_EQ(SendFrame(), action.size() + KeepAliveDatagram().size());
  EXPECT_HEX_EQ(Server().ReadBytes(action.size()), action);

  FakeClock::At(6000);
  moduleWrites = true;
  const Bytes record = ModuleRecord("TEST_alpha", Pattern(2));
  EXPECT_EQ(SendFrame(), record.size() + KeepAliveDatagram().size())
      << "a TCP keep-alive is due, but the frame already sent TCP traffic";
  EXPECT_HEX_EQ(Server().ReadBytes(record.size()), record);

  // The timer still counts from 0 ms: the first silent frame sends the keep-alive at once.
  FakeClock::At(6000.5);
  moduleWrites = false;
  EXPECT_EQ(SendFrame(), 1u);
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
}

TEST_F(KeepAlive, ModuleDatagramNeitherSendsNorRestartsTheDatagramKeepAlive) {
  bool moduleWrites = false;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    if (moduleWrites) WriteBytes(unreliable, Pattern(2));
  });

  FakeClock::At(0);
  SendFrame();
  EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());

  FakeClock::At(600);
  moduleWrites = true;
  const Bytes datagram = ModuleDatagram("TEST_alpha", Pattern(2));
  EXPECT_EQ(SendFrame(), datagram.size());
  EXPECT_HEX_EQ(NextDatagram(), datagram);

  FakeClock::At(600.5);
  moduleWrites = false;
  EXPECT_EQ(SendFrame(), KeepAliveDatagram().size());
  EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());
}

// The client starts watching for silence with the first server message; the probe of the
// harness is one, stamped at the fake time of its arrival.
class Liveness : public OutboundTest {
 protected:
  void ServerSpeaksAt(double ms) {
    FakeClock::At(ms);
    session->StartReceiving();
    const size_t before = Probe::Count();
    session->SendReliable({});
    ASSERT_TRUE(Probe::WaitFor(before + 1)) << "the server's message was not taken in";
  }
};

TEST_F(Liveness, NoSilenceCountsBeforeTheFirstServerMessage) {
  StderrCapture captured;
  FakeClock::At(0);
  SendFrame();
  FakeClock::At(100000);

  EXPECT_EQ(SendFrame(), 1 + KeepAliveDatagram().size());
  EXPECT_FALSE(Game::QuitRequested());
  EXPECT_EQ(captured.Text(), "");
}

TEST_F(Liveness, SilenceOfExactlyFifteenSecondsIsTolerated) {
  ServerSpeaksAt(1000);
  StderrCapture captured;
  FakeClock::At(16000);

  EXPECT_EQ(SendFrame(), 1 + KeepAliveDatagram().size());
  EXPECT_FALSE(Game::QuitRequested());
  EXPECT_EQ(captured.Text(), "");
}

TEST_F(Liveness, LongerSilenceQuitsTheGameAndSendsNothing) {
  client::Client::error = "earlier loss";
  auto entity = MakeBareEntity(1);
  QueueAction(*entity, Pattern(3));
  int modRuns = 0;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream& reliable, WriteOnlyStream& unreliable) {
    ++modRuns;
    WriteBytes(reliable, Pattern(2));
    WriteBytes(unreliable, Pattern(2));
  });
  ServerSpeaksAt(1000);
  StderrCapture captured;
  FakeClock::At(16000.001);

  EXPECT_EQ(SendFrame(), 0u) << "keep-alives were due, and an action and a mod waited";
  EXPECT_TRUE(Game::QuitRequested());
  EXPECT_EQ(captured.Text(), "Disconnected from server\n");
  EXPECT_EQ(client::Client::error, "earlier loss");
  EXPECT_EQ(modRuns, 0);
  EXPECT_TRUE(entity->hasPendingActions);

  // Nothing is reset: every later frame reaches the same verdict.
  EXPECT_EQ(SendFrame(), 0u);
  EXPECT_EQ(captured.Text(), "Disconnected from server\nDisconnected from server\n");
}

TEST_F(Liveness, ProcessHostingTheServerReportsAFrozenServerThread) {
  Game::_is_server = true;
  ServerSpeaksAt(0);
  StderrCapture captured;
  FakeClock::At(60000);

  EXPECT_EQ(SendFrame(), 0u);
  EXPECT_TRUE(Game::QuitRequested());
  EXPECT_EQ(captured.Text(), "Server thread frozen\n");
}

// The server closes its end; the client's writes then fail (the first one still goes
// into the kernel, the peer's reset makes a later one fail). Frames are repeated, a
// little apart, until one fails.
class TcpFlushFailure : public OutboundTest {
 protected:
  // Runs frames `stepMs` apart, `queue` before each, until the client reports the loss.
  // Returns the number of frames, the failing one included.
  int FramesUntilLoss(double stepMs, const std::function<void()>& queue) {
    session->connection.reset();
    for (int frame = 1; frame <= 50; ++frame) {
      FakeClock::Advance(stepMs);
      queue();
      Client().Send();
      if (!client::Client::error.empty()) return frame;
      EXPECT_FALSE(Game::QuitRequested()) << "quit before the connection failed";
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("the client's flushes kept succeeding after the server closed");
  }
};

TEST_F(TcpFlushFailure, FailedFrameFlushEndsTheGameAndSkipsTheKeepAlives) {
  auto entity = MakeBareEntity(1);
  StderrCapture captured;

  // Each frame uploads an action; the datagram keep-alive is due in every one.
  const int frames = FramesUntilLoss(1000, [&] { QueueAction(*entity, Pattern(64)); });

  EXPECT_EQ(client::Client::error, "Disconnected from server");
  EXPECT_TRUE(Game::QuitRequested());
  for (int i = 1; i < frames; ++i) EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());
  EXPECT_TRUE(NoMoreDatagrams()) << "the failing frame sent a datagram keep-alive";
  EXPECT_THAT(captured.Text(), testing::MatchesRegex("[^\n]+\n"))
      << "the platform's reason, one line";

  // Later frames fail the same way, quietly for the game.
  EXPECT_NO_THROW(Client().Send());
  EXPECT_EQ(client::Client::error, "Disconnected from server");
}

TEST_F(TcpFlushFailure, FailedKeepAliveFlushEndsTheGameAndSkipsTheDatagramKeepAlive) {
  // Silent frames, each past both paces: every one writes a TCP and a datagram keep-alive.
  const int frames = FramesUntilLoss(5001, [] {});

  EXPECT_EQ(client::Client::error, "Disconnected from server");
  EXPECT_TRUE(Game::QuitRequested());
  for (int i = 1; i < frames; ++i) EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());
  EXPECT_TRUE(NoMoreDatagrams()) << "the failing frame sent a datagram keep-alive";
}

class SendProfile : public OutboundTest {
 protected:
  void SetUp() override {
    OutboundTest::SetUp();
    Profiler::enabled = true;
  }
};

TEST_F(SendProfile, EveryCallIsOneMeasurementUnderClientSend) {
  // The mod's step takes 2 ms of fake time: the scope spans the whole call.
  LoadSendMod("TEST_alpha", [](WriteOnlyStream&, WriteOnlyStream&) { FakeClock::Advance(2); });

  for (int i = 0; i < 3; ++i) Client().Send();

  const auto profile = ProfileOf("Client::Send");
  ASSERT_TRUE(profile.has_value());
  EXPECT_EQ(profile->count, 3u);
  EXPECT_DOUBLE_EQ(profile->totalMs, 6.0);
  EXPECT_DOUBLE_EQ(profile->minMs, 2.0);
  EXPECT_TRUE(ProfileStack().empty());
}

TEST_F(SendProfile, ModProfilerInsideTheSendHandlerNestsUnderClientSend) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream&, WriteOnlyStream&) {
    Profiler profiler("Physics", true);
    FakeClock::Advance(3);
    profiler.Stop();
  });

  Client().Send();

  const auto nested = ProfileOf("Client::Send/Physics");
  ASSERT_TRUE(nested.has_value());
  EXPECT_EQ(nested->count, 1u);
  EXPECT_DOUBLE_EQ(nested->totalMs, 3.0);
  EXPECT_FALSE(ProfileOf("Physics").has_value());
  EXPECT_TRUE(ProfileStack().empty());
}

TEST_F(SendProfile, LivenessFailureClosesTheScope) {
  FakeClock::At(0);
  session->StartReceiving();
  const size_t before = Probe::Count();
  session->SendReliable({});
  ASSERT_TRUE(Probe::WaitFor(before + 1));
  FakeClock::At(20000);
  StderrCapture quiet;

  Client().Send();
  Client().Send();

  const auto profile = ProfileOf("Client::Send");
  ASSERT_TRUE(profile.has_value());
  EXPECT_EQ(profile->count, 2u);
  EXPECT_FALSE(ProfileOf("Client::Send/Client::Send").has_value());
  EXPECT_TRUE(ProfileStack().empty());
}

TEST_F(SendProfile, FlushFailureClosesTheScope) {
  StderrCapture quiet;
  session->connection.reset();
  int calls = 0;
  while (client::Client::error.empty() && calls < 50) {
    FakeClock::Advance(5001);
    Client().Send();
    ++calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(client::Client::error, "Disconnected from server");
  Client().Send();

  const auto profile = ProfileOf("Client::Send");
  ASSERT_TRUE(profile.has_value());
  EXPECT_EQ(profile->count, static_cast<uint32_t>(calls + 1));
  EXPECT_FALSE(ProfileOf("Client::Send/Client::Send").has_value());
  EXPECT_TRUE(ProfileStack().empty());
}

TEST_F(SendProfile, ExceptionFromASendHandlerReachesTheGameAndClosesTheScope) {
  bool fail = true;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream&, WriteOnlyStream&) {
    if (fail) throw std::runtime_error("mod failed");
  });

  try {
    Client().Send();
    ADD_FAILURE() << "the mod's exception did not reach the game";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "mod failed");
  }
  EXPECT_TRUE(ProfileStack().empty());

  fail = false;
  EXPECT_EQ(SendFrame(), 1 + KeepAliveDatagram().size()) << "the next frame runs normally";
  const auto profile = ProfileOf("Client::Send");
  ASSERT_TRUE(profile.has_value());
  EXPECT_EQ(profile->count, 2u);
  EXPECT_FALSE(ProfileOf("Client::Send/Client::Send").has_value());
}

}  // namespace
}  // namespace clienttest
