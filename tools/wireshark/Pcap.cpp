#include "wireshark/Pcap.h"

#include <stdexcept>

namespace capture {
namespace {

constexpr uint32_t kLinkTypeEthernet = 1;
constexpr uint8_t kLoopback[4] = {127, 0, 0, 1};
constexpr uint32_t kEpochSeconds = 1700000000;  // fixed, so the file is the same every run
constexpr size_t kIpHeader = 20;

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

PcapFile::PcapFile(const std::string& path) : file_(std::fopen(path.c_str(), "wb")) {
  if (!file_) throw std::runtime_error("cannot create " + path);
  // Host-order header: readers tell the byte order from the magic.
  const uint32_t magic = 0xA1B2C3D4, snaplen = 65535;
  const uint16_t major = 2, minor = 4;
  const int32_t zone = 0;
  const uint32_t sigfigs = 0;
  std::fwrite(&magic, 4, 1, file_);
  std::fwrite(&major, 2, 1, file_);
  std::fwrite(&minor, 2, 1, file_);
  std::fwrite(&zone, 4, 1, file_);
  std::fwrite(&sigfigs, 4, 1, file_);
  std::fwrite(&snaplen, 4, 1, file_);
  std::fwrite(&kLinkTypeEthernet, 4, 1, file_);
}

PcapFile::~PcapFile() {
  if (file_) std::fclose(file_);
}

void PcapFile::Close() {
  const bool failed = std::ferror(file_) != 0;
  const bool closeFailed = std::fclose(file_) != 0;
  file_ = nullptr;
  if (failed || closeFailed) throw std::runtime_error("writing the capture failed");
}

void PcapFile::Udp(uint16_t sourcePort, uint16_t destinationPort, const Bytes& payload) {
  Bytes udp;
  Put16(udp, sourcePort);
  Put16(udp, destinationPort);
  Put16(udp, static_cast<uint16_t>(8 + payload.size()));
  Put16(udp, 0);
  udp.insert(udp.end(), payload.begin(), payload.end());
  Set16(udp, 6, TransportChecksum(17, udp));
  Frame(17, udp);
}

void PcapFile::Tcp(uint16_t sourcePort, uint16_t destinationPort, uint32_t sequence,
                   uint32_t acknowledgement, uint8_t flags, const Bytes& payload) {
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

void PcapFile::Frame(uint8_t protocol, const Bytes& transport) {
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

  const uint32_t record[4] = {kEpochSeconds + frames_ / 1000, (frames_ % 1000) * 1000,
                              static_cast<uint32_t>(frame.size()),
                              static_cast<uint32_t>(frame.size())};
  ++frames_;
  std::fwrite(record, 4, 4, file_);
  std::fwrite(frame.data(), 1, frame.size(), file_);
}

TcpConnection::TcpConnection(PcapFile& file, uint16_t clientPort, uint16_t serverPort)
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

}  // namespace capture
