#include "common/Pcapng.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace capture {
namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A, kInterface = 1, kStatistics = 5, kPacket = 6,
                   kCustom = 0x00000BAD;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kLinkTypeEthernet = 1, kOptionComment = 1;
constexpr uint32_t kSnapLength = 65535 + 14;
constexpr uint8_t kLoopback[4] = {127, 0, 0, 1};
constexpr uint64_t kFixedStart = 1700000000ull * 1000000;  // the reproducible files' clock
constexpr size_t kEthernetHeader = 14, kIpHeader = 20;
// The largest payload a segment or datagram in one IPv4 packet can carry.
constexpr size_t kMaxTransport = 65535 - kIpHeader;

void Put16(Bytes& out, uint16_t v) {  // network order
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}
void Put32(Bytes& out, uint32_t v) {
  Put16(out, static_cast<uint16_t>(v >> 16));
  Put16(out, static_cast<uint16_t>(v));
}
void Set16(Bytes& out, size_t at, uint16_t v) {
  out[at] = static_cast<uint8_t>(v >> 8);
  out[at + 1] = static_cast<uint8_t>(v);
}
uint16_t Get16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
// The file's own numbers: the writer's byte order.
template <typename T>
void PutHost(Bytes& out, T v) {
  const auto* p = reinterpret_cast<const uint8_t*>(&v);
  out.insert(out.end(), p, p + sizeof v);
}
template <typename T>
T GetHost(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
void Pad(Bytes& out) {
  out.resize((out.size() + 3) / 4 * 4, 0);
}

// The ones' complement sum of 16-bit words, folded, not yet inverted.
uint32_t Sum(const uint8_t* data, size_t size, uint32_t sum = 0) {
  for (size_t i = 0; i + 1 < size; i += 2) sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
  if (size % 2) sum += static_cast<uint32_t>(data[size - 1] << 8);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return sum;
}

// TCP and UDP checksums cover a pseudo header of addresses, protocol and length.
uint16_t TransportChecksum(uint8_t protocol, const Bytes& transport) {
  Bytes pseudo(kLoopback, kLoopback + 4);
  pseudo.insert(pseudo.end(), kLoopback, kLoopback + 4);
  pseudo.push_back(0);
  pseudo.push_back(protocol);
  Put16(pseudo, static_cast<uint16_t>(transport.size()));
  const uint16_t sum = static_cast<uint16_t>(
      ~Sum(transport.data(), transport.size(), Sum(pseudo.data(), pseudo.size())));
  // A UDP checksum of zero means "none"; its ones' complement twin stands for it.
  return protocol == 17 && sum == 0 ? 0xFFFF : sum;
}

}  // namespace

CaptureFile::CaptureFile(const std::string& path, const std::string& comment)
    : file_(std::fopen(path.c_str(), "wb")), time_(kFixedStart) {
  if (!file_) throw std::runtime_error("cannot create " + path);
  Bytes section;
  PutHost<uint32_t>(section, kByteOrderMagic);
  PutHost<uint16_t>(section, 1);  // version 1.0
  PutHost<uint16_t>(section, 0);
  PutHost<int64_t>(section, -1);  // section length: not given
  Block(kSectionHeader, section, comment);
  Bytes interface;
  PutHost<uint16_t>(interface, kLinkTypeEthernet);
  PutHost<uint16_t>(interface, 0);
  PutHost<uint32_t>(interface, kSnapLength);
  Block(kInterface, interface, "");
}

CaptureFile::~CaptureFile() {
  if (file_) std::fclose(file_);
}

void CaptureFile::Close(const std::string& comment) {
  if (!comment.empty()) {
    Bytes statistics;
    PutHost<uint32_t>(statistics, 0);
    PutHost<uint32_t>(statistics, static_cast<uint32_t>(time_ >> 32));
    PutHost<uint32_t>(statistics, static_cast<uint32_t>(time_));
    Block(kStatistics, statistics, comment);
  }
  const bool failed = std::ferror(file_) != 0;
  const bool closeFailed = std::fclose(file_) != 0;
  file_ = nullptr;
  if (failed || closeFailed) throw std::runtime_error("writing the capture failed");
}

void CaptureFile::Block(uint32_t type, const Bytes& body, const std::string& comment) {
  Bytes options;
  if (!comment.empty()) {
    const size_t length = std::min<size_t>(comment.size(), 65532);
    PutHost<uint16_t>(options, kOptionComment);
    PutHost<uint16_t>(options, static_cast<uint16_t>(length));
    options.insert(options.end(), comment.begin(), comment.begin() + static_cast<long>(length));
    Pad(options);
    PutHost<uint32_t>(options, 0);  // end of options
  }
  const uint32_t total = static_cast<uint32_t>(12 + body.size() + options.size());
  const uint32_t head[2] = {type, total};
  std::fwrite(head, 4, 2, file_);
  // An empty vector's data() may be null, which fwrite does not take.
  if (!body.empty()) std::fwrite(body.data(), 1, body.size(), file_);
  if (!options.empty()) std::fwrite(options.data(), 1, options.size(), file_);
  std::fwrite(&total, 4, 1, file_);
  size_ += total;
}

void CaptureFile::Custom(const Bytes& data) {
  Bytes body;
  PutHost<uint32_t>(body, kEnterprise);
  PutHost<uint32_t>(body, static_cast<uint32_t>(data.size()));
  body.insert(body.end(), data.begin(), data.end());
  Pad(body);
  Block(kCustom, body, "");
}

void CaptureFile::Udp(uint16_t sourcePort, uint16_t destinationPort, const Bytes& payload) {
  if (payload.size() > kMaxTransport - 8) throw std::length_error("datagram too long for IPv4");
  Bytes udp;
  Put16(udp, sourcePort);
  Put16(udp, destinationPort);
  Put16(udp, static_cast<uint16_t>(8 + payload.size()));
  Put16(udp, 0);
  udp.insert(udp.end(), payload.begin(), payload.end());
  Set16(udp, 6, TransportChecksum(17, udp));
  Frame(17, udp);
}

void CaptureFile::Tcp(uint16_t sourcePort, uint16_t destinationPort, uint32_t sequence,
                      uint32_t acknowledgement, uint8_t flags, const Bytes& payload) {
  if (payload.size() > kMaxTransport - 20) throw std::length_error("segment too long for IPv4");
  Bytes tcp;
  Put16(tcp, sourcePort);
  Put16(tcp, destinationPort);
  Put32(tcp, sequence);
  Put32(tcp, acknowledgement);
  tcp.push_back(5 << 4);  // 20-byte header, no options
  tcp.push_back(flags);
  Put16(tcp, 65535);  // window
  Put16(tcp, 0);      // checksum, set below
  Put16(tcp, 0);      // urgent pointer
  tcp.insert(tcp.end(), payload.begin(), payload.end());
  Set16(tcp, 16, TransportChecksum(6, tcp));
  Frame(6, tcp);
}

void CaptureFile::Frame(uint8_t protocol, const Bytes& transport) {
  Bytes frame(12, 0);  // destination and source MAC
  Put16(frame, 0x0800);
  const size_t ip = frame.size();
  frame.push_back(0x45);  // IPv4, 20-byte header
  frame.push_back(0);
  Put16(frame, static_cast<uint16_t>(kIpHeader + transport.size()));
  Put16(frame, ipId_++);
  Put16(frame, 0x4000);  // don't fragment
  frame.push_back(64);   // TTL
  frame.push_back(protocol);
  Put16(frame, 0);
  frame.insert(frame.end(), kLoopback, kLoopback + 4);
  frame.insert(frame.end(), kLoopback, kLoopback + 4);
  Set16(frame, ip + 10, static_cast<uint16_t>(~Sum(frame.data() + ip, kIpHeader)));
  frame.insert(frame.end(), transport.begin(), transport.end());

  Bytes packet;
  PutHost<uint32_t>(packet, 0);  // interface
  PutHost<uint32_t>(packet, static_cast<uint32_t>(time_ >> 32));
  PutHost<uint32_t>(packet, static_cast<uint32_t>(time_));
  PutHost<uint32_t>(packet, static_cast<uint32_t>(frame.size()));
  PutHost<uint32_t>(packet, static_cast<uint32_t>(frame.size()));
  packet.insert(packet.end(), frame.begin(), frame.end());
  Pad(packet);
  Block(kPacket, packet, comment_);
  comment_.clear();
  if (ticking_) time_ += 1000;
}

TcpConnection::TcpConnection(CaptureFile& file, uint16_t clientPort, uint16_t serverPort)
    : file_(file),
      clientPort_(clientPort),
      serverPort_(serverPort),
      clientSequence_(1000u * clientPort),
      serverSequence_(7000u * clientPort) {
  file_.Tcp(clientPort_, serverPort_, clientSequence_++, 0, kSyn, {});
  file_.Tcp(serverPort_, clientPort_, serverSequence_++, clientSequence_, kSyn | kAck, {});
  file_.Tcp(clientPort_, serverPort_, clientSequence_, serverSequence_, kAck, {});
}

void TcpConnection::FromClient(const Bytes& payload) {
  file_.Tcp(clientPort_, serverPort_, clientSequence_, serverSequence_, kPsh | kAck, payload);
  clientSequence_ += static_cast<uint32_t>(payload.size());
}

void TcpConnection::FromServer(const Bytes& payload) {
  file_.Tcp(serverPort_, clientPort_, serverSequence_, clientSequence_, kPsh | kAck, payload);
  serverSequence_ += static_cast<uint32_t>(payload.size());
}

void TcpConnection::Close() {
  file_.Tcp(clientPort_, serverPort_, clientSequence_++, serverSequence_, kFin | kAck, {});
  file_.Tcp(serverPort_, clientPort_, serverSequence_++, clientSequence_, kFin | kAck, {});
  file_.Tcp(clientPort_, serverPort_, clientSequence_, serverSequence_, kAck, {});
}

// ---------------------------------------------------------------------------------------
// Reading

namespace {

// The comment among a block's options [at, end); "" when there is none.
std::string CommentIn(const uint8_t* at, const uint8_t* end) {
  while (end - at >= 4) {
    const uint16_t code = GetHost<uint16_t>(at), length = GetHost<uint16_t>(at + 2);
    const size_t padded = (length + 3u) / 4 * 4;
    if (code == 0 || static_cast<size_t>(end - at - 4) < padded) break;
    if (code == kOptionComment) return std::string(at + 4, at + 4 + length);
    at += 4 + padded;
  }
  return "";
}

// An Ethernet frame of IPv4 TCP or UDP; false for anything else.
bool ParseFrame(const uint8_t* p, size_t size, Frame& frame) {
  if (size < kEthernetHeader + kIpHeader || Get16(p + 12) != 0x0800) return false;
  p += kEthernetHeader;
  size -= kEthernetHeader;
  const size_t ipLength = (p[0] & 0x0F) * 4u, total = Get16(p + 2);
  if ((p[0] >> 4) != 4 || ipLength < kIpHeader || total < ipLength || total > size) return false;
  const uint8_t protocol = p[9];
  const uint8_t* t = p + ipLength;
  const size_t transport = total - ipLength;
  size_t header = 0;
  if (protocol == 6 && transport >= 20) {
    header = (t[12] >> 4) * 4u;
    frame.flags = t[13];
  } else if (protocol == 17 && transport >= 8) {
    header = 8;
  }
  if (header < 8 || header > transport) return false;
  frame.tcp = protocol == 6;
  frame.sourcePort = Get16(t);
  frame.destinationPort = Get16(t + 2);
  frame.payload.assign(t + header, t + transport);
  return true;
}

}  // namespace

Bytes ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path);
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

Capture ReadCapture(const Bytes& file, const std::string& path) {
  const auto fail = [&](size_t at, const std::string& what) {
    throw std::runtime_error(path + ": " + what + " at byte " + std::to_string(at));
  };
  Capture capture;
  size_t at = 0;
  while (at < file.size()) {
    if (file.size() - at < 12) fail(at, "cut short inside a block");
    const uint8_t* block = file.data() + at;
    const uint32_t type = GetHost<uint32_t>(block), total = GetHost<uint32_t>(block + 4);
    if (at == 0 && (type != kSectionHeader || file.size() < 28 ||
                    GetHost<uint32_t>(block + 8) != kByteOrderMagic)) {
      throw std::runtime_error(path + ": not a pcapng capture written in this byte order");
    }
    if (total < 12 || total % 4 != 0) fail(at, "a block with a bad length");
    if (total > file.size() - at) fail(at, "cut short inside a block");
    if (GetHost<uint32_t>(block + total - 4) != total) fail(at, "a block whose lengths disagree");
    const uint8_t* end = block + total - 4;
    if (type == kSectionHeader) {
      if (at != 0) fail(at, "a second section");
      if (total < 28) fail(at, "a section header too short");
      capture.comment = CommentIn(block + 24, end);
    } else if (type == kInterface) {
      if (total < 20 || GetHost<uint16_t>(block + 8) != kLinkTypeEthernet) {
        fail(at, "an interface that is not Ethernet");
      }
    } else if (type == kPacket) {
      if (total < 32) fail(at, "a packet block too short");
      const uint32_t captured = GetHost<uint32_t>(block + 20);
      if (captured > total - 32) fail(at, "a packet longer than its block");
      Frame frame;
      frame.time = uint64_t{GetHost<uint32_t>(block + 12)} << 32 | GetHost<uint32_t>(block + 16);
      if (ParseFrame(block + 28, captured, frame)) {
        frame.comment = CommentIn(block + 28 + (captured + 3u) / 4 * 4, end);
        capture.frames.push_back(std::move(frame));
      }
    } else if (type == kCustom && total >= 20 && GetHost<uint32_t>(block + 8) == kEnterprise) {
      const uint32_t length = GetHost<uint32_t>(block + 12);
      if (length > total - 20) fail(at, "a custom block longer than itself");
      capture.custom.emplace_back(block + 16, block + 16 + length);
    } else if (type == kStatistics) {
      capture.closed = true;
      if (total >= 24) capture.closingComment = CommentIn(block + 20, end);
    }
    at += total;
  }
  if (file.empty()) throw std::runtime_error(path + ": empty file");
  return capture;
}

}  // namespace capture
