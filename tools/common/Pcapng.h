// Capture files in pcapng form, written and read: Ethernet frames carrying IPv4 between
// 127.0.0.1 and itself, with TCP connections and UDP datagrams laid out by hand. Lengths
// and the IPv4, TCP and UDP checksums are correct; MAC addresses are zero, as a capture on
// the loopback interface shows them. Wireshark, tshark and the dissector read these files;
// game-client --record writes one and game-server --replay reads it back.
//
// Blocks written: the section header (with an optional comment), one interface (Ethernet,
// microsecond timestamps), one enhanced packet block per frame (with an optional comment),
// custom blocks of this project's own (copyable, enterprise number kEnterprise: a length,
// then that many bytes), and at the end, optionally, an interface statistics block whose
// comment closes the file.
// Numbers are in the writer's byte order, which readers tell from the section header.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace capture {

using Bytes = std::vector<uint8_t>;

// The private enterprise number in this project's custom blocks: the one set aside for
// documentation, as the project has none of its own.
inline constexpr uint32_t kEnterprise = 32473;

class CaptureFile {
 public:
  // Creates (truncates) `path` and writes the section header, with `comment` when it is not
  // empty, and the interface; throws std::runtime_error.
  explicit CaptureFile(const std::string& path, const std::string& comment = "");
  ~CaptureFile();
  CaptureFile(const CaptureFile&) = delete;
  CaptureFile& operator=(const CaptureFile&) = delete;

  // The time of the frames that follow, in microseconds since 1970. Without it the frames
  // are one millisecond apart from a fixed moment, so that the file is the same every run.
  void SetTime(uint64_t microseconds) {
    time_ = microseconds;
    ticking_ = false;
  }
  // A comment for the next frame only.
  void CommentNextFrame(const std::string& comment) { comment_ = comment; }

  void Udp(uint16_t sourcePort, uint16_t destinationPort, const Bytes& payload);
  // One TCP segment; `flags` are the TCP header's flag bits.
  void Tcp(uint16_t sourcePort, uint16_t destinationPort, uint32_t sequence,
           uint32_t acknowledgement, uint8_t flags, const Bytes& payload);
  // One custom block holding `data`.
  void Custom(const Bytes& data);
  // Bytes written so far.
  uint64_t Size() const { return size_; }
  // Writes the closing statistics block with `comment` (none when empty), then closes.
  // Throws std::runtime_error when a write failed.
  void Close(const std::string& comment = "");

 private:
  void Frame(uint8_t protocol, const Bytes& transport);
  void Block(uint32_t type, const Bytes& body, const std::string& comment);

  std::FILE* file_ = nullptr;
  uint64_t time_;
  bool ticking_ = true;  // one millisecond per frame, until SetTime
  uint64_t size_ = 0;
  std::string comment_;
  uint16_t ipId_ = 1;
};

// One TCP connection between a client port and the server port. The constructor writes
// the three-way handshake; every payload goes in one segment of its own.
class TcpConnection {
 public:
  static constexpr uint8_t kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10;

  TcpConnection(CaptureFile& file, uint16_t clientPort, uint16_t serverPort);
  void FromClient(const Bytes& payload);
  void FromServer(const Bytes& payload);
  // FIN from the client, FIN from the server, the client's last ACK.
  void Close();

 private:
  CaptureFile& file_;
  uint16_t clientPort_, serverPort_;
  uint32_t clientSequence_, serverSequence_;
};

// A frame read back: a TCP segment or a UDP datagram between two ports.
struct Frame {
  uint64_t time = 0;  // microseconds since 1970
  bool tcp = false;
  uint8_t flags = 0;  // TCP only
  uint16_t sourcePort = 0, destinationPort = 0;
  Bytes payload;
  std::string comment;
};

struct Capture {
  std::string comment;  // the section header's
  std::vector<Frame> frames;
  std::vector<Bytes> custom;  // the data of this project's custom blocks, in file order
  bool closed = false;        // the closing statistics block is there
  std::string closingComment;
};

// The bytes of the file at `path`; throws std::runtime_error when it cannot be read.
Bytes ReadFile(const std::string& path);

// Reads the bytes of a file this writer wrote, named `path` in errors (one section,
// Ethernet, IPv4 TCP and UDP; other frames and blocks are skipped). Trust boundary: every
// length is checked against the bytes present before it is used, so what is kept is never
// more than the file holds; a file that is not pcapng, is cut inside a block or has a block
// whose lengths disagree throws std::runtime_error with one line that says where.
Capture ReadCapture(const Bytes& file, const std::string& path);

}  // namespace capture
