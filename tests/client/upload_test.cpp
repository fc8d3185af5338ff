// What one Send() uploads: queued entity actions on TCP, and each mod's reliable and
// unreliable messages, read byte for byte by the server on loopback.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "client/OutboundSupport.h"
#include "support_helpers/StderrCapture.h"

namespace clienttest {

using testing_support::StderrCapture;
namespace {

using orvex::filesystem::WriteOnlyStream;

class EntityActionUpload : public OutboundTest {};

TEST_F(EntityActionUpload, QueuedActionsLeaveAsOneRecordEachInQueuingOrder) {
  auto entity = MakeBareEntity(1);
  const std::vector<Bytes> actions = {Pattern(3, 0x10), Bytes{}, Pattern(300, 0x20)};
  for (const Bytes& action : actions) QueueAction(*entity, action);

  const uint64_t sent = SendFrame();

  Bytes expected;
  for (const Bytes& action : actions) {
    const Bytes record = ActionRecord(entity->id, action);
    expected.insert(expected.end(), record.begin(), record.end());
  }
  EXPECT_HEX_EQ(Server().ReadBytes(expected.size()), expected);
  // The records count as the frame's TCP traffic: no TCP keep-alive, only the datagram one.
  EXPECT_EQ(sent, expected.size() + KeepAliveDatagram().size());
  EXPECT_FALSE(entity->hasPendingActions);
  EXPECT_TRUE(entity->pendingActions.empty());

  // Uploaded once: the next silent frame sends a keep-alive, not the actions again.
  FakeClock::Advance(1);
  SendFrame();
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
}

TEST_F(EntityActionUpload, ActionsWithoutTheFlagStayQueuedAndUnsent) {
  auto entity = MakeBareEntity(1);
  {
    std::lock_guard<std::mutex> lock(entity->actionsMutex);
    orvex::filesystem::Stream action;
    WriteBytes(action, Pattern(5));
    entity->pendingActions.push_back(action);
  }

  const uint64_t sent = SendFrame();

  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03}) << "only the TCP keep-alive may leave";
  EXPECT_EQ(sent, 1 + KeepAliveDatagram().size());
  EXPECT_EQ(entity->pendingActions.size(), 1u);
}

TEST_F(EntityActionUpload, FlagWithAnEmptyQueueSendsNothingAndIsCleared) {
  auto entity = MakeBareEntity(1);
  entity->hasPendingActions = true;

  const uint64_t sent = SendFrame();

  // Nothing was written, so the frame counts as silent on TCP.
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
  EXPECT_EQ(sent, 1 + KeepAliveDatagram().size());
  EXPECT_FALSE(entity->hasPendingActions);
}

TEST_F(EntityActionUpload, EveryEntityWithActionsIsUploadedInTheSameFrame) {
  auto first = MakeBareEntity(1);
  auto second = MakeBareEntity(2);
  auto idle = MakeBareEntity(3);
  QueueAction(*first, Pattern(4, 0xA0));
  QueueAction(*second, Pattern(6, 0xB0));
  QueueAction(*first, Pattern(2, 0xC0));

  const uint64_t sent = SendFrame();

  // The registry decides the order of entities; each entity's actions keep their order.
  std::map<uint64_t, std::vector<Bytes>> byEntity;
  std::vector<uint64_t> order;
  uint64_t recordBytes = 0;
  for (int i = 0; i < 3; ++i) {
    wire::ClientMessage message = Server().ReadMessage();
    ASSERT_EQ(message.code, 0x43);
    order.push_back(message.entity.word0);
    recordBytes += 1 + 16 + 4 + message.payload.size();
    byEntity[message.entity.word0].push_back(message.payload);
  }
  EXPECT_EQ(byEntity[first->id.word0], (std::vector<Bytes>{Pattern(4, 0xA0), Pattern(2, 0xC0)}));
  EXPECT_EQ(byEntity[second->id.word0], std::vector<Bytes>{Pattern(6, 0xB0)});
  EXPECT_EQ(byEntity.count(idle->id.word0), 0u);
  EXPECT_TRUE(order == (std::vector<uint64_t>{1, 1, 2}) ||
              order == (std::vector<uint64_t>{2, 1, 1}))
      << "one entity's records are not interleaved with another's";
  EXPECT_EQ(sent, recordBytes + KeepAliveDatagram().size());
}

class ModuleUpload : public OutboundTest {};

TEST_F(ModuleUpload, ReliableMessageIsOneTcpRecordAndNoDatagram) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream& reliable, WriteOnlyStream&) {
    WriteBytes(reliable, Pattern(5, 0x61));
  });

  const uint64_t sent = SendFrame();

  const Bytes record = ModuleRecord("TEST_alpha", Pattern(5, 0x61));
  EXPECT_HEX_EQ(Server().ReadBytes(record.size()), record);
  // The datagram channel stayed silent, so its keep-alive is all that goes there.
  EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());
  EXPECT_EQ(sent, record.size() + KeepAliveDatagram().size());
}

TEST_F(ModuleUpload, UnreliableMessageIsOneDatagramOfHeaderAndRecord) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, Pattern(4, 0x70));
  });

  const uint64_t sent = SendFrame();

  const Bytes datagram = ModuleDatagram("TEST_alpha", Pattern(4, 0x70));
  EXPECT_HEX_EQ(NextDatagram(), datagram);
  // TCP stayed silent: its keep-alive goes; the datagram replaced the datagram keep-alive.
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
  EXPECT_EQ(sent, datagram.size() + 1);
  EXPECT_TRUE(NoMoreDatagrams());
}

TEST_F(ModuleUpload, MessagesOnBothChannelsReplaceBothKeepAlives) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream& reliable, WriteOnlyStream& unreliable) {
    WriteBytes(reliable, Pattern(7, 0x01));
    WriteBytes(unreliable, Pattern(9, 0x02));
  });

  const uint64_t sent = SendFrame();

  const Bytes record = ModuleRecord("TEST_alpha", Pattern(7, 0x01));
  const Bytes datagram = ModuleDatagram("TEST_alpha", Pattern(9, 0x02));
  EXPECT_HEX_EQ(Server().ReadBytes(record.size()), record);
  EXPECT_HEX_EQ(NextDatagram(), datagram);
  EXPECT_EQ(sent, record.size() + datagram.size());
}

TEST_F(ModuleUpload, FlushingTheReliableStreamSplitsTheMessageIntoRecordsOfTheSameModule) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream& reliable, WriteOnlyStream&) {
    reliable.Flush();  // nothing written yet: no record
    WriteBytes(reliable, Pattern(3, 0x11));
    reliable.Flush();
    WriteBytes(reliable, Pattern(2, 0x22));
  });

  const uint64_t sent = SendFrame();

  const Bytes expected = wire::ByteWriter()
                             .Append(ModuleRecord("TEST_alpha", Pattern(3, 0x11)))
                             .Append(ModuleRecord("TEST_alpha", Pattern(2, 0x22)));
  EXPECT_HEX_EQ(Server().ReadBytes(expected.size()), expected);
  EXPECT_EQ(sent, expected.size() + KeepAliveDatagram().size());
}

TEST_F(ModuleUpload, FlushingTheUnreliableStreamSendsADatagramAtOnce) {
  LoadSendMod("TEST_alpha", [this](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, Pattern(3, 0x31));
    unreliable.Flush();
    // Already on its way while the handler still runs.
    EXPECT_HEX_EQ(NextDatagram(), ModuleDatagram("TEST_alpha", Pattern(3, 0x31)));
    WriteBytes(unreliable, Pattern(2, 0x41));
  });

  const uint64_t sent = SendFrame();

  const Bytes second = ModuleDatagram("TEST_alpha", Pattern(2, 0x41));
  EXPECT_HEX_EQ(NextDatagram(), second);
  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
  EXPECT_EQ(sent, ModuleDatagram("TEST_alpha", Pattern(3, 0x31)).size() + second.size() + 1);
}

TEST_F(ModuleUpload, EachModulesDatagramLeavesOnItsOwn) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, Pattern(10, 0x01));
  });
  LoadSendMod("TEST_mute", nullptr);
  LoadSendMod("TEST_beta", [](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, Pattern(20, 0x02));
  });

  SendFrame();

  // Mods run in load order; a mod without a send handler adds nothing.
  EXPECT_HEX_EQ(NextDatagram(), ModuleDatagram("TEST_alpha", Pattern(10, 0x01)));
  EXPECT_HEX_EQ(NextDatagram(), ModuleDatagram("TEST_beta", Pattern(20, 0x02)));
  EXPECT_TRUE(NoMoreDatagrams());
}

TEST_F(ModuleUpload, ModsWithoutSendHandlerSendNothing) {
  LoadSendMod("TEST_mute", nullptr);
  LoadSendMod("TEST_quiet", nullptr);

  const uint64_t sent = SendFrame();

  EXPECT_HEX_EQ(Server().ReadBytes(1), Bytes{0x03});
  EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());
  EXPECT_EQ(sent, 1 + KeepAliveDatagram().size());
}

TEST_F(ModuleUpload, LargestUnreliablePayloadFillsOneFullDatagram) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, Pattern(1366));
  });
  StderrCapture captured;

  SendFrame();

  const Bytes datagram = NextDatagram();
  EXPECT_EQ(datagram.size(), 1400u);
  EXPECT_HEX_EQ(datagram, ModuleDatagram("TEST_alpha", Pattern(1366)));
  EXPECT_EQ(captured.Text(), "");
}

TEST_F(ModuleUpload, OversizedUnreliablePayloadIsDiscardedAndTheReliablePartStillLeaves) {
  LoadSendMod("TEST_alpha", [](WriteOnlyStream& reliable, WriteOnlyStream& unreliable) {
    WriteBytes(reliable, Pattern(6, 0x51));
    WriteBytes(unreliable, Pattern(1367));
  });
  StderrCapture captured;

  const uint64_t sent = SendFrame();

  EXPECT_EQ(captured.Text(),
            "Datagram packet size exceeds 1366 bytes and is therefore discarded\n");
  const Bytes record = ModuleRecord("TEST_alpha", Pattern(6, 0x51));
  EXPECT_HEX_EQ(Server().ReadBytes(record.size()), record);
  // Nothing went out on the datagram channel, so its keep-alive does.
  EXPECT_HEX_EQ(NextDatagram(), KeepAliveDatagram());
  EXPECT_EQ(sent, record.size() + KeepAliveDatagram().size());
}

TEST_F(ModuleUpload, DiscardedPayloadDoesNotLeakIntoLaterDatagrams) {
  bool oversized = true;
  LoadSendMod("TEST_alpha", [&oversized](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, oversized ? Pattern(1400) : Pattern(5, 0x61));
  });
  LoadSendMod("TEST_beta", [](WriteOnlyStream&, WriteOnlyStream& unreliable) {
    WriteBytes(unreliable, Pattern(3, 0x62));
  });
  StderrCapture captured;

  SendFrame();
  EXPECT_HEX_EQ(NextDatagram(), ModuleDatagram("TEST_beta", Pattern(3, 0x62)));

  oversized = false;
  FakeClock::Advance(1);
  SendFrame();
  EXPECT_HEX_EQ(NextDatagram(), ModuleDatagram("TEST_alpha", Pattern(5, 0x61)));
  EXPECT_HEX_EQ(NextDatagram(), ModuleDatagram("TEST_beta", Pattern(3, 0x62)));
  EXPECT_TRUE(NoMoreDatagrams());
  EXPECT_NE(captured.Text(), "");
}

TEST_F(ModuleUpload, StreamsFlushedAfterSendReturnsSendNothing) {
  WriteOnlyStream* reliableSeen = nullptr;
  WriteOnlyStream* unreliableSeen = nullptr;
  LoadSendMod("TEST_alpha", [&](WriteOnlyStream& reliable, WriteOnlyStream& unreliable) {
    reliableSeen = &reliable;
    unreliableSeen = &unreliable;
  });
  SendFrame();
  ASSERT_NE(reliableSeen, nullptr);
  ASSERT_NE(unreliableSeen, nullptr);
  Server().ReadBytes(1);
  NextDatagram();

  const uint64_t sent = BytesOutOf([&] {
    WriteBytes(*reliableSeen, Pattern(8));
    reliableSeen->Flush();
    WriteBytes(*unreliableSeen, Pattern(8));
    unreliableSeen->Flush();
  });

  EXPECT_EQ(sent, 0u);
  EXPECT_TRUE(NoMoreDatagrams());
  // Nor does anything wait in the TCP buffer for the next frame's flush (1 ms later, with
  // no keep-alive due and nothing written by the mod).
  FakeClock::Advance(1);
  EXPECT_EQ(SendFrame(), 0u);
  EXPECT_TRUE(Server().ReadAvailable(100, 1000).empty());
}

}  // namespace
}  // namespace clienttest
