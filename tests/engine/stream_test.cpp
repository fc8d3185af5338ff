// Byte streams: exact encodings, and readers that never leave the bytes they hold.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

#include "Hex.h"
#include "filesystem/StreamValues.h"
#include "orvex/filesystem/Stream.h"

namespace {

using namespace orvex::filesystem;
using namespace std::string_literals;
using testlib::Bytes;

Bytes Waiting(const Stream& s) {
  return BytesOf(s);
}

TEST(Stream, EncodingsAreLittleEndianValuesAndCountedBlocksInAQueue) {
  Stream inner, s, self;  // only the inner stream's waiting bytes are embedded
  inner.Write(Bytes{9, 1, 2}.data(), 3);
  ReadValue<uint8_t>(inner);
  WriteValue<uint16_t>(s, 0x1234), WriteValue<uint64_t>(s, 0x1122334455667788ull);
  WriteValue<int32_t>(s, -2), WriteValue<double>(s, 1.0), WriteValue<float>(s, -2.0f);
  s.Write("ab"s), s.Write("\0"s), s.Write(inner), s.Write(WriteOnlyStream());
  EXPECT_HEX_EQ(Waiting(s),
                (Bytes{0x34, 0x12, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0xFE, 0xFF,
                       0xFF, 0xFF, 0,    0,    0,    0,    0,    0,    0xF0, 0x3F, 0,    0,
                       0,    0xC0, 2,    0,    0,    0,    'a',  'b',  1,    0,    0,    0,
                       0,    2,    0,    0,    0,    1,    2,    0,    0,    0,    0}));
  WriteValue<uint16_t>(self, 0x0201), self.Write(self);
  EXPECT_HEX_EQ(Waiting(self), (Bytes{1, 2, 2, 0, 0, 0, 1, 2}));
  Stream queue;  // the consumed front is dropped on the way
  for (uint32_t i = 0; i < 3000; ++i) {
    WriteValue(queue, i), WriteValue(queue, i);
    ASSERT_EQ(ReadValue<uint32_t>(queue), i / 2);
  }
  EXPECT_EQ((queue.Flush(), queue.GetBufferSize()), 0u);
}

// Every cut of a record reads within its bytes: values as present bytes then zeros, blocks clamped.
TEST(Stream, EveryCutOfARecordReadsZerosOrClampedBlocks) {
  struct Field {
    int size;  // > 0: a value of that many bytes; 0: a string; -1: an embedded stream
    std::string bytes;
  };
  const Field fields[] = {{2, "\x93\x92"},
                          {0, "hello"},
                          {-1, "\x01\x02"},
                          {8, "\xB8\xB7\xB6\xB5\xB4\xB3\xB2\xB1"},
                          {0, ""}};
  Stream record;
  for (const Field& f : fields) {
    if (f.size <= 0) WriteValue(record, static_cast<uint32_t>(f.bytes.size()));
    record.Write(reinterpret_cast<const uint8_t*>(f.bytes.data()), f.bytes.size());
  }
  const Bytes all = Waiting(record);
  for (size_t cut = 0; cut <= all.size(); ++cut) {
    const Bytes exact(all.begin(), all.begin() + cut);  // a read past it shows under ASan
    Stream memory;
    memory.Write(exact.data(), cut);
    ReadOnlyStream owning(exact.data(), cut), view = ReadOnlyStream(exact.data(), cut);
    for (Stream* s : {&memory, static_cast<Stream*>(&owning), static_cast<Stream*>(&view)}) {
      size_t at = 0;
      for (const Field& f : fields) {
        std::string got(std::max(f.size, 0), '\0'), expected;
        if (f.size > 0) {
          s->Read(reinterpret_cast<uint8_t*>(got.data()), got.size());
          expected = f.bytes.substr(0, cut > at ? cut - at : 0) + std::string(f.size, '\0');
          expected.resize(f.size);
        } else {
          const Bytes block = f.size < 0 ? Waiting(s->ReadStream()) : Bytes{};
          got = f.size < 0 ? std::string(block.begin(), block.end()) : s->ReadString(100);
          expected = f.bytes.substr(0, cut > at + 4 ? cut - at - 4 : 0);  // counts are < 256
        }
        EXPECT_EQ(got, expected) << "cut at " << cut << ", field at " << at;
        at += f.size > 0 ? f.size : 4 + f.bytes.size();
      }
      EXPECT_EQ(s->GetBufferSize(), 0u);
    }
  }
  const Bytes hostile = {0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b', 'c'};  // a count past the end
  EXPECT_THROW(ReadOnlyStream(hostile).ReadString(65535), std::runtime_error) << "above the limit";
}

TEST(Stream, ReadOnlyCopiesOwnTheirBytesAndSubStreamsOutliveTheirParent) {
  auto bytes = std::make_unique<Bytes>(Bytes{4, 0, 0, 0, 'n', 'e', 's', 't', 42});
  ReadOnlyStream view = ReadOnlyStream(bytes->data(), bytes->size()), copy(view), sub;
  bytes.reset();  // the streams made from the bytes own copies of them
  {
    ReadOnlyStream parent;
    parent = copy;  // shares the storage, keeps its own position
    sub = parent.ReadStream();
    EXPECT_EQ(ReadValue<uint8_t>(parent), 42);
  }
  const Bytes nested = BytesOf(sub);
  EXPECT_EQ(std::string(nested.begin(), nested.end()), "nest");
  ReadOnlyStream moved(std::move(copy));
  EXPECT_EQ(moved.GetSize(), 9u);
  EXPECT_EQ(copy.GetSize(), 0u);
  EXPECT_THROW(WriteValue<uint8_t>(moved, 1), std::logic_error);
  EXPECT_EQ((moved.Flush(), orvex::filesystem::PositionOf(moved)), 9u) << "a flush skips the rest";
}

TEST(Stream, WriteOnlyFlushRunsTheHandlerOnceThenEmptiesUnlessItThrows) {
  WriteOnlyStream stream(1400);
  EXPECT_THROW(stream.ReadStream(), std::logic_error);
  int calls = 0;
  stream.flushHandler = [&] {
    if (++calls == 2) throw std::runtime_error("send failed");
    stream.Flush();                  // inside the handler: only empties
    WriteValue<uint8_t>(stream, 9);  // emptied by the outer flush
  };
  stream.Write("ok"s), stream.Flush();
  EXPECT_EQ(stream.GetBufferSize(), 0u);
  WriteValue<uint8_t>(stream, 1);
  EXPECT_THROW(stream.Flush(), std::runtime_error);
  EXPECT_EQ(stream.GetBufferSize(), 1u) << "the bytes stay for the caller";
  stream.Flush();  // the handler runs again
  EXPECT_EQ(calls, 3);
}

}  // namespace
