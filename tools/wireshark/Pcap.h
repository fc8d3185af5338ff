// A classic pcap file of Ethernet frames carrying IPv4 between 127.0.0.1 and itself, with
// TCP connections and UDP datagrams laid out by hand: for a deterministic capture, not
// for capturing. Lengths and the IPv4, TCP and UDP checksums are correct; MAC addresses
// are zero, as a capture on the loopback interface shows them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace capture {

using Bytes = std::vector<uint8_t>;

class PcapFile {
 public:
  // Creates (truncates) `path` and writes the file header; throws std::runtime_error.
  explicit PcapFile(const std::string& path);
  ~PcapFile();
  PcapFile(const PcapFile&) = delete;
  PcapFile& operator=(const PcapFile&) = delete;

  void Udp(uint16_t sourcePort, uint16_t destinationPort, const Bytes& payload);
  // One TCP segment; `flags` are the TCP header's flag bits.
  void Tcp(uint16_t sourcePort, uint16_t destinationPort, uint32_t sequence,
           uint32_t acknowledgement, uint8_t flags, const Bytes& payload);
  // Throws std::runtime_error when a write failed.
  void Close();

 private:
  void Frame(uint8_t protocol, const Bytes& transport);

  std::FILE* file_ = nullptr;
  uint32_t frames_ = 0;  // also the timestamp: one millisecond per frame
  uint16_t ipId_ = 1;
};

// One TCP connection between a client port and the server port. The constructor writes
// the three-way handshake; every payload goes in one segment of its own.
class TcpConnection {
 public:
  static constexpr uint8_t kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10;

  TcpConnection(PcapFile& file, uint16_t clientPort, uint16_t serverPort);
  void FromClient(const Bytes& payload);
  void FromServer(const Bytes& payload);
  // FIN from the client, FIN from the server, the client's last ACK.
  void Close();

 private:
  PcapFile& file_;
  uint16_t clientPort_, serverPort_;
  uint32_t clientSequence_, serverSequence_;
};

}  // namespace capture
