// Byte streams: exact encodings, reads that never leave their bytes, ownership of
// read-only streams, and the write-only stream's flush handler.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvex/filesystem/Stream.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::filesystem::Stream;
using orvex::filesystem::WriteOnlyStream;
using Bytes = std::vector<unsigned char>;

Bytes Waiting(const Stream& stream) {
  return Bytes(stream.GetBuffer(), stream.GetBuffer() + stream.GetBufferSize());
}

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

// ---------------------------------------------------------------------------------------

TEST(StreamEncoding, ValuesAreTheirRawLittleEndianBytes) {
  Stream stream;
  stream.WriteValue<uint8_t>(0xAB);
  stream.WriteValue<uint16_t>(0x1234);
  stream.WriteValue<uint32_t>(0x01020304);
  stream.WriteValue<uint64_t>(0x1122334455667788ull);
  stream.WriteValue<int32_t>(-2);
  stream.WriteValue<double>(1.0);
  stream.WriteValue<float>(-2.0f);
  EXPECT_EQ(Waiting(stream),
            (Bytes{0xAB, 0x34, 0x12, 0x04, 0x03, 0x02, 0x01, 0x88, 0x77, 0x66, 0x55,
                   0x44, 0x33, 0x22, 0x11, 0xFE, 0xFF, 0xFF, 0xFF, 0,    0,    0,
                   0,    0,    0,    0xF0, 0x3F, 0,    0,    0,    0xC0}));
}

TEST(StreamEncoding, StringIsU32CountThenBytes) {
  Stream stream;
  stream.Write(std::string("ab"));
  stream.Write(std::string());
  stream.Write(std::string("\0x", 2));
  EXPECT_EQ(Waiting(stream), (Bytes{2, 0, 0, 0, 'a', 'b', 0, 0, 0, 0, 2, 0, 0, 0, 0, 'x'}));

  std::string a, b, c;
  stream.Read(a);
  stream.Read(b);
  stream.Read(c);
  EXPECT_EQ(a, "ab");
  EXPECT_EQ(b, "");
  EXPECT_EQ(c, std::string("\0x", 2));
}

TEST(StreamEncoding, EmbeddedStreamIsCountThenTheOtherStreamsWaitingBytes) {
  Stream inner;
  inner.WriteValue<uint8_t>(9);  // read below, so not part of the waiting bytes
  inner.Write(Bytes{1, 2, 3}.data(), 3);
  inner.ReadValue<uint8_t>();

  Stream outer;
  outer.WriteValue<uint8_t>(0x7F);
  outer.Write(inner);
  EXPECT_EQ(Waiting(outer), (Bytes{0x7F, 3, 0, 0, 0, 1, 2, 3}));
  EXPECT_EQ(Waiting(inner), (Bytes{1, 2, 3}));  // unchanged

  WriteOnlyStream empty;
  Stream withEmpty;
  withEmpty.Write(empty);
  EXPECT_EQ(Waiting(withEmpty), (Bytes{0, 0, 0, 0}));

  Stream self;
  self.WriteValue<uint16_t>(0x0201);
  self.Write(self);
  EXPECT_EQ(Waiting(self), (Bytes{1, 2, 2, 0, 0, 0, 1, 2}));
}

// ---------------------------------------------------------------------------------------

TEST(MemoryStream, ReadsConsumeFromTheFrontAndMissingBytesAreZero) {
  Stream stream;
  stream.WriteValue<uint16_t>(0xBEEF);
  EXPECT_EQ(stream.GetBufferSize(), 2u);
  EXPECT_EQ(stream.ReadValue<uint8_t>(), 0xEF);
  EXPECT_EQ(stream.GetBufferSize(), 1u);
  EXPECT_EQ(stream.ReadValue<uint32_t>(), 0xBEu);
  EXPECT_EQ(stream.GetBufferSize(), 0u);
  EXPECT_EQ(stream.ReadValue<uint64_t>(), 0u);

  stream.WriteValue<uint32_t>(1);
  stream.Flush();
  EXPECT_EQ(stream.GetBufferSize(), 0u);
}

TEST(MemoryStream, InterleavedWritesAndReadsKeepTheirOrder) {
  Stream queue;
  uint32_t next = 0;
  for (uint32_t i = 0; i < 5000; ++i) {
    queue.WriteValue(i);
    if (i % 3 != 0) {
      EXPECT_EQ(queue.ReadValue<uint32_t>(), next);
      ++next;
    }
  }
  while (next < 5000) EXPECT_EQ(queue.ReadValue<uint32_t>(), next++);
  EXPECT_EQ(queue.GetBufferSize(), 0u);
}

// ---------------------------------------------------------------------------------------
// Truncation: a record cut at every length reads cleanly from every bounded stream kind.
// Scalars read as their present bytes followed by zeros; a string or sub-stream whose
// count runs past the end is clamped to the bytes that are there.

struct Field {
  enum Kind { kU8, kU16, kU32, kU64, kDouble, kString, kStream } kind;
  unsigned long begin = 0;  // offset of the field in the record
  std::string text;         // for kString and kStream
};

struct Record {
  Bytes bytes;
  std::vector<Field> fields;
};

Record MakeRecord() {
  Stream s;
  Record r;
  auto mark = [&](Field::Kind kind, std::string text = {}) {
    r.fields.push_back({kind, s.GetBufferSize(), std::move(text)});
  };
  mark(Field::kU8);
  s.WriteValue<uint8_t>(0x81);
  mark(Field::kU16);
  s.WriteValue<uint16_t>(0x9293);
  mark(Field::kString, "hello");
  s.Write(std::string("hello"));
  mark(Field::kU32);
  s.WriteValue<uint32_t>(0xA1A2A3A4);
  mark(Field::kStream, "\x01\x02\x03");
  Stream inner;
  inner.Write(reinterpret_cast<const unsigned char*>("\x01\x02\x03"), 3);
  s.Write(inner);
  mark(Field::kU64);
  s.WriteValue<uint64_t>(0xB1B2B3B4B5B6B7B8ull);
  mark(Field::kString, "");
  s.Write(std::string());
  mark(Field::kDouble);
  s.WriteValue<double>(-3.25);
  mark(Field::kString, "xyz");
  s.Write(std::string("xyz"));
  r.bytes = Waiting(s);
  return r;
}

template <typename T>
T PaddedValue(const Bytes& bytes, unsigned long cut, unsigned long at) {
  unsigned char raw[sizeof(T)] = {};
  for (unsigned long i = 0; i < sizeof(T); ++i) {
    if (at + i < cut) raw[i] = bytes[at + i];
  }
  T value;
  std::memcpy(&value, raw, sizeof(T));
  return value;
}

void ExpectCleanRead(Stream& stream, const Record& record, unsigned long cut) {
  SCOPED_TRACE("cut at " + std::to_string(cut));
  for (const Field& field : record.fields) {
    const unsigned long at = field.begin;
    switch (field.kind) {
      case Field::kU8:
        EXPECT_EQ(stream.ReadValue<uint8_t>(), PaddedValue<uint8_t>(record.bytes, cut, at));
        break;
      case Field::kU16:
        EXPECT_EQ(stream.ReadValue<uint16_t>(), PaddedValue<uint16_t>(record.bytes, cut, at));
        break;
      case Field::kU32:
        EXPECT_EQ(stream.ReadValue<uint32_t>(), PaddedValue<uint32_t>(record.bytes, cut, at));
        break;
      case Field::kU64:
        EXPECT_EQ(stream.ReadValue<uint64_t>(), PaddedValue<uint64_t>(record.bytes, cut, at));
        break;
      case Field::kDouble:
        EXPECT_EQ(stream.ReadValue<double>(), PaddedValue<double>(record.bytes, cut, at));
        break;
      case Field::kString:
      case Field::kStream: {
        // The counts are below 256, so a count is whole as soon as its first byte is there.
        unsigned long present = cut > at + 4 ? cut - (at + 4) : 0;
        std::string expected = at < cut ? field.text.substr(0, present) : "";
        if (field.kind == Field::kString) {
          std::string text;
          stream.Read(text);
          EXPECT_EQ(text, expected);
        } else {
          ReadOnlyStream sub = stream.ReadStream();
          EXPECT_EQ(std::string(sub.GetBuffer(), sub.GetBuffer() + sub.GetBufferSize()), expected);
        }
        break;
      }
    }
  }
  EXPECT_EQ(stream.GetBufferSize(), 0u);
}

TEST(StreamTruncation, EveryCutOfARecordReadsZerosOrClampedBlocks) {
  const Record record = MakeRecord();
  for (unsigned long cut = 0; cut <= record.bytes.size(); ++cut) {
    // Exactly sized heap copies: a read past them would show under the address sanitizer.
    Bytes exact(record.bytes.begin(), record.bytes.begin() + static_cast<long>(cut));

    ReadOnlyStream owning(exact.data(), cut);
    ExpectCleanRead(owning, record, cut);
    EXPECT_LE(owning.GetPosition(), cut);

    ReadOnlyStream view = ReadOnlyStream::View(exact.data(), cut);
    ExpectCleanRead(view, record, cut);

    Stream memory;
    memory.Write(exact.data(), cut);
    ExpectCleanRead(memory, record, cut);
  }
}

TEST(StreamTruncation, HostileCountsAreClampedToTheBytesPresent) {
  const Bytes hostile = {0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b', 'c'};

  ReadOnlyStream forString(hostile);
  std::string text;
  forString.Read(text);
  EXPECT_EQ(text, "abc");

  ReadOnlyStream forStream(hostile);
  ReadOnlyStream sub = forStream.ReadStream();
  EXPECT_EQ(sub.GetSize(), 3u);
  EXPECT_EQ(forStream.GetBufferSize(), 0u);

  Stream memory;
  memory.Write(hostile.data(), hostile.size());
  EXPECT_EQ(memory.ReadStream().GetSize(), 3u);
}

TEST(StreamTruncation, ReadStringRefusesACountAboveItsLimitOnEveryStream) {
  ReadOnlyStream hostile(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 'a'});
  EXPECT_EQ(ErrorOf([&] { hostile.ReadString(65535); }),
            "string of 4294967295 bytes exceeds the limit of 65535 bytes");

  Stream memory;
  memory.Write(std::string("abcd"));
  EXPECT_EQ(ErrorOf([&] { memory.ReadString(3); }),
            "string of 4 bytes exceeds the limit of 3 bytes");

  Stream atLimit;
  atLimit.Write(std::string("abcd"));
  EXPECT_EQ(atLimit.ReadString(4), "abcd");
}

// ---------------------------------------------------------------------------------------

TEST(ReadOnlyStream, AViewReadsTheCallersBytesAndItsCopyOwnsThem) {
  auto bytes = std::make_unique<Bytes>(Bytes{1, 2, 3, 4});
  ReadOnlyStream view = ReadOnlyStream::View(bytes->data(), bytes->size());
  EXPECT_FALSE(view.OwnsBytes());
  EXPECT_EQ(view.GetBuffer(), bytes->data());
  EXPECT_EQ(view.ReadValue<uint8_t>(), 1);

  ReadOnlyStream copy(view);
  bytes.reset();  // the view is dangling now; the copy must not care
  EXPECT_TRUE(copy.OwnsBytes());
  EXPECT_EQ(copy.GetPosition(), 1u);
  EXPECT_EQ(copy.GetSize(), 4u);
  EXPECT_EQ(copy.ReadValue<uint8_t>(), 2);

  ReadOnlyStream assigned;
  assigned = copy;
  EXPECT_EQ(assigned.ReadValue<uint16_t>(), 0x0403);
  EXPECT_EQ(copy.GetPosition(), 2u);  // positions are independent
}

TEST(ReadOnlyStream, CopiesShareStorageAndMovesEmptyTheSource) {
  ReadOnlyStream original(Bytes{5, 6, 7});
  ReadOnlyStream copy(original);
  EXPECT_EQ(copy.GetBuffer(), original.GetBuffer());

  ReadOnlyStream moved(std::move(original));
  EXPECT_EQ(moved.GetSize(), 3u);
  EXPECT_EQ(original.GetSize(), 0u);
  EXPECT_EQ(original.ReadValue<uint8_t>(), 0);
}

TEST(ReadOnlyStream, SubStreamsShareStorageAndOutliveTheirParent) {
  Stream message;
  Stream payload;
  payload.Write(std::string("nested"));
  message.Write(payload);
  message.WriteValue<uint8_t>(42);

  ReadOnlyStream sub;
  {
    ReadOnlyStream parent(Waiting(message));
    sub = parent.ReadStream();
    EXPECT_EQ(sub.GetBuffer(), parent.GetBuffer() - sub.GetSize());
    EXPECT_EQ(parent.ReadValue<uint8_t>(), 42);
  }
  EXPECT_EQ(sub.ReadString(100), "nested");

  Bytes raw = Waiting(message);
  ReadOnlyStream view = ReadOnlyStream::View(raw.data(), raw.size());
  ReadOnlyStream viewSub = view.ReadStream();
  EXPECT_FALSE(viewSub.OwnsBytes());
  EXPECT_EQ(viewSub.ReadString(100), "nested");
}

TEST(ReadOnlyStream, RefusesWritesAndFlushSkipsTheRest) {
  ReadOnlyStream stream(Bytes{1, 2, 3});
  EXPECT_THROW(stream.WriteValue<uint8_t>(1), std::logic_error);
  EXPECT_THROW(stream.Write(std::string("x")), std::logic_error);
  stream.Flush();
  EXPECT_EQ(stream.GetBufferSize(), 0u);
  EXPECT_EQ(stream.GetPosition(), 3u);
}

// ---------------------------------------------------------------------------------------

TEST(WriteOnlyStream, CollectsWritesAndRefusesReads) {
  WriteOnlyStream stream(1400);
  EXPECT_EQ(stream.GetBufferSize(), 0u);
  stream.Write(std::string("ok"));
  EXPECT_EQ(Waiting(stream), (Bytes{2, 0, 0, 0, 'o', 'k'}));
  EXPECT_THROW(stream.ReadValue<uint8_t>(), std::logic_error);
  EXPECT_THROW(stream.ReadStream(), std::logic_error);
  stream.Clear();
  EXPECT_EQ(stream.GetBufferSize(), 0u);
}

TEST(WriteOnlyStream, FlushRunsTheHandlerOnceThenEmpties) {
  WriteOnlyStream stream;
  Stream sink;
  int calls = 0;
  stream.flushHandler = [&] {
    ++calls;
    sink.Write(stream);
    stream.Flush();  // inside the handler: only empties
    EXPECT_EQ(stream.GetBufferSize(), 0u);
    stream.WriteValue<uint8_t>(9);  // written after the nested flush, emptied at the end
  };
  stream.WriteValue<uint16_t>(0x0102);
  stream.Flush();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(stream.GetBufferSize(), 0u);
  EXPECT_EQ(Waiting(sink), (Bytes{2, 0, 0, 0, 2, 1}));

  stream.Flush();  // the handler runs on every outer flush, empty or not
  EXPECT_EQ(calls, 2);
}

TEST(WriteOnlyStream, AThrowingHandlerLeavesTheStreamUsable) {
  WriteOnlyStream stream;
  int calls = 0;
  stream.flushHandler = [&] {
    if (++calls == 1) throw std::runtime_error("send failed");
  };
  stream.WriteValue<uint8_t>(1);
  EXPECT_THROW(stream.Flush(), std::runtime_error);
  stream.Flush();
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(stream.GetBufferSize(), 0u);

  stream.flushHandler = nullptr;
  stream.WriteValue<uint8_t>(1);
  stream.Flush();
  EXPECT_EQ(stream.GetBufferSize(), 0u);
}

}  // namespace
