#include "server/Replay.h"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>

#include "filesystem/StreamValues.h"
#include "game/Networking.h"
#include "net/TcpListener.h"
#include "net/UdpEndpoint.h"
#include "protocol/Hex.h"
#include "protocol/Ports.h"

namespace gameserver {
namespace {

using Clock = std::chrono::steady_clock;
using recording::Item;

constexpr int kPasswordWaitMs = 100;
constexpr unsigned long kUdpCapacity = 65507;
// How long the client has for its first datagram, which tells where datagrams go.
constexpr auto kDatagramAddressWait = std::chrono::seconds(5);
// After the last recorded byte: time for the client to take in what is on its way before
// the goodbye, then for it to say its own and leave.
constexpr auto kGrace = std::chrono::milliseconds(300);
constexpr int kLeaveWaitMs = 10000;
// The replay holds its next datagram while more than this waits unread in the client's
// socket (as the kernel counts it, with each datagram's overhead), looked at every few
// datagrams: well under the smallest receive buffer a Linux socket gets by default
// (208 KiB), so that a client that falls behind loses nothing to a full buffer.
constexpr uint64_t kUnreadLimit = 96 << 10;
constexpr int kUnreadCheckEvery = 8;
// A client that takes nothing for this long is not waited for any more.
constexpr auto kUnreadPatience = std::chrono::seconds(10);
// How much of a payload a difference shows.
constexpr size_t kShownBytes = 24;

std::string Describe(const wire::ClientMessage& m) {
  switch (m.code) {
    case networking::MSG_DISCONNECT:
      return "disconnect";
    case networking::MSG_ENTITY_ACTION:
      return "entity action on " + m.entity.ToString() + " [" + wire::Hex(m.payload, kShownBytes) +
             "]";
    case networking::MSG_FOR_MODULE:
      return "module message for " + m.module.String() + " [" + wire::Hex(m.payload, kShownBytes) +
             "]";
    default:
      return "code " + std::to_string(m.code);
  }
}

// The client's TCP messages in `bytes`, keep-alives aside (their timing is the frames', not
// the input's); a message cut short at the end is left out.
std::vector<std::string> TcpMessages(const wire::Bytes& bytes) {
  std::vector<std::string> out;
  auto in = orvex::filesystem::ReadOnlyStream(bytes.data(), bytes.size());
  try {
    while (orvex::filesystem::PositionOf(in) < bytes.size()) {
      const wire::ClientMessage m = wire::ReadClientMessage(in);
      if (m.code != networking::MSG_KEEPALIVE) out.push_back(Describe(m));
    }
  } catch (const std::exception& e) {
    if (!dynamic_cast<const wire::Truncated*>(&e)) out.push_back(std::string("bad: ") + e.what());
  }
  return out;
}

// The datagrams' records, keep-alives aside, each with its header.
std::vector<std::string> DatagramMessages(const std::vector<wire::Bytes>& datagrams) {
  std::vector<std::string> out;
  for (const wire::Bytes& d : datagrams) {
    const auto datagram = wire::ParseClientDatagram(d.data(), d.size());
    if (!datagram) {
      out.push_back("malformed datagram [" + wire::Hex(d, kShownBytes) + "]");
      continue;
    }
    const std::string header = "player " + std::to_string(datagram->playerId) + " tag " +
                               std::to_string(datagram->serverTag) + ": ";
    for (const wire::ClientMessage& m : datagram->messages) {
      if (m.code != networking::MSG_KEEPALIVE) out.push_back(header + Describe(m));
    }
  }
  return out;
}

// The first difference between two message lists; with `prefixOnly` the longer list's tail
// is not one (the recording ended before the session did).
std::string FirstDifference(const char* what, const std::vector<std::string>& recorded,
                            const std::vector<std::string>& replayed, bool prefixOnly) {
  for (size_t i = 0; i < recorded.size() || i < replayed.size(); ++i) {
    const bool inRecorded = i < recorded.size(), inReplayed = i < replayed.size();
    if (inRecorded && inReplayed && recorded[i] == replayed[i]) continue;
    if (prefixOnly && !(inRecorded && inReplayed)) return "";
    return std::string(what) + " " + std::to_string(i + 1) + ": recorded " +
           (inRecorded ? recorded[i] : "nothing more") + ", replayed " +
           (inReplayed ? replayed[i] : "nothing more");
  }
  return "";
}

}  // namespace

// The kernel's tables have the rx_queue column.
std::optional<uint64_t> UnreadDatagramBytes(uint16_t port) {
  for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // the column names
    while (std::getline(in, line)) {
      // "  sl  local_address rem_address   st tx_queue:rx_queue ...", in hex.
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues;
      if (!(fields >> slot >> local >> remote >> state >> queues)) continue;
      const size_t colon = local.rfind(':'), split = queues.find(':');
      if (colon == std::string::npos || split == std::string::npos) continue;
      unsigned localPort = 0;
      uint64_t unread = 0;
      const char* end = local.data() + local.size();
      if (std::from_chars(local.data() + colon + 1, end, localPort, 16).ptr != end) continue;
      if (localPort != port) continue;
      end = queues.data() + queues.size();
      if (std::from_chars(queues.data() + split + 1, end, unread, 16).ptr == end) return unread;
    }
  }
  return std::nullopt;
}

Replayer::Replayer(recording::Recording recording, ReplayOptions options)
    : recording_(std::move(recording)), options_(std::move(options)) {}

Replayer::~Replayer() {
  Stop();
  if (udp_) udp_->StopReceiving();
}

void Replayer::Start() {
  wire::PortPair pair = wire::BindSamePort(options_.host, options_.port, kUdpCapacity);
  listener_ = std::move(pair.tcp);
  udp_ = std::move(pair.udp);
  port_ = listener_->GetPort();
}

void Replayer::Stop() {
  stopping_.store(true);
  if (listener_) listener_->Close();
}

ReplayResult Replayer::Run() {
  tcp_ = listener_->Accept(options_.acceptTimeoutMs);
  if (!tcp_) throw std::runtime_error(stopping_ ? "stopped" : "no client came");
  const std::string peer = tcp_->GetRemoteAddress();
  if (tcp_->Poll(10000) != 1) throw std::runtime_error("the client sent no hello");
  const wire::Hello hello = wire::ReadHello(*tcp_, kPasswordWaitMs);
  for (const Item& item : recording_.items) {
    if (item.kind != Item::kClientTcp) continue;
    size_t consumed = 0;
    const auto recorded = wire::ParseHello(item.bytes.data(), item.bytes.size(), consumed);
    if (!recorded || recorded->lead != hello.lead || recorded->magic != hello.magic ||
        recorded->version != hello.version) {
      helloDifference_ = "the hello's lead byte, magic or version";
    }
    break;
  }

  udp_->Receive([this, peer](const orvex::net::UdpEndpoint& socket,
                             orvex::filesystem::ReadOnlyStream&& datagram) {
    if (socket.GetIncomingAddress() != peer) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!datagramAddressKnown_) {
      // Datagrams go where the client's come from; the writer waits for this under mutex_.
      udp_->SetDestination(socket.GetIncomingAddress(), socket.GetIncomingPort());
      clientPort_ = socket.GetIncomingPort();
      datagramAddressKnown_ = true;
      heard_.notify_all();
    }
    clientDatagrams_.push_back(orvex::filesystem::BytesOf(datagram));
  });
  std::atomic<bool> clientLeft{false};
  std::thread reader([this, &clientLeft] {
    unsigned char chunk[16384];
    try {
      while (!stopping_.load()) {
        if (tcp_->Poll(200) != 1) continue;
        const unsigned long n = tcp_->ReadSome(chunk, sizeof chunk);
        std::lock_guard<std::mutex> lock(mutex_);
        clientTcp_.insert(clientTcp_.end(), chunk, chunk + n);
      }
    } catch (const std::exception&) {
      // The client closed the connection: its part is over.
    }
    clientLeft.store(true);
  });

  ReplayResult result;
  try {
    Stream(result);
  } catch (...) {
    tcp_->Shutdown();
    reader.join();
    throw;
  }
  for (int waited = 0; !clientLeft.load() && !stopping_.load() && waited < kLeaveWaitMs;
       waited += 10) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  tcp_->Shutdown();
  reader.join();
  udp_->StopReceiving();
  result.difference = Compare();
  return result;
}

void Replayer::Stream(ReplayResult& result) {
  const auto start = Clock::now();
  auto last = start;
  uint64_t firstTime = 0, lastTime = 0;
  bool first = true;
  bool clientGone = false;
  for (const Item& item : recording_.items) {
    if (item.kind != Item::kServerTcp && item.kind != Item::kServerDatagram) continue;
    if (stopping_.load()) throw std::runtime_error("stopped");
    if (first) firstTime = lastTime = item.time;
    first = false;
    const auto gap = std::chrono::microseconds(item.time > lastTime ? item.time - lastTime : 0);
    const auto due = options_.fast
                         ? last + std::min<Clock::duration>(gap, std::chrono::milliseconds(1))
                         : start + std::chrono::microseconds(item.time - firstTime);
    lastTime = std::max(lastTime, item.time);
    std::this_thread::sleep_until(due);
    last = std::max(due, last);
    if (item.kind == Item::kServerTcp) {
      try {
        tcp_->Write(item.bytes.data(), item.bytes.size());
        tcp_->Flush();
        result.tcpBytes += item.bytes.size();
      } catch (const std::exception&) {
        clientGone = true;
        break;
      }
      continue;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (!heard_.wait_for(lock, kDatagramAddressWait, [this] { return datagramAddressKnown_; })) {
      throw std::runtime_error("the client sent no datagram, so datagrams have nowhere to go");
    }
    lock.unlock();
    if (result.datagrams % kUnreadCheckEvery == 0) WaitForTheClient();
    udp_->Write(item.bytes.data(), item.bytes.size());
    udp_->Flush();
    ++result.datagrams;
  }
  if (clientGone) return;
  // The recording client's session may have ended by its own clock; this one ends with the
  // server's goodbye, once what is under way has arrived.
  std::this_thread::sleep_for(kGrace);
  try {
    const uint8_t goodbye = networking::MSG_DISCONNECT;
    tcp_->Write(&goodbye, 1);
    tcp_->Flush();
  } catch (const std::exception&) {
    // Gone already, after the recorded goodbye.
  }
}

void Replayer::WaitForTheClient() {
  // A datagram the client's socket has no room for is lost, and a replay that follows the
  // recorded thread order cannot go on without it: the replay goes at the client's pace.
  auto lastProgress = Clock::now();
  uint64_t least = UINT64_MAX;
  for (auto unread = UnreadDatagramBytes(clientPort_);
       unread && *unread > kUnreadLimit && !stopping_.load();
       unread = UnreadDatagramBytes(clientPort_)) {
    if (*unread < least) least = *unread, lastProgress = Clock::now();
    if (Clock::now() - lastProgress > kUnreadPatience) return;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

std::string Replayer::Compare() const {
  wire::Bytes recordedTcp;
  std::vector<wire::Bytes> recordedDatagrams;
  bool hello = true;
  for (const Item& item : recording_.items) {
    if (item.kind == Item::kClientTcp) {
      // The first client bytes are the hello, alone in its flush.
      if (!hello) recordedTcp.insert(recordedTcp.end(), item.bytes.begin(), item.bytes.end());
      hello = false;
    } else if (item.kind == Item::kClientDatagram) {
      recordedDatagrams.push_back(item.bytes);
    }
  }
  if (!helloDifference_.empty()) return helloDifference_;
  std::lock_guard<std::mutex> lock(mutex_);
  const bool prefix = !recording_.complete;
  std::string difference =
      FirstDifference("TCP message", TcpMessages(recordedTcp), TcpMessages(clientTcp_), prefix);
  if (difference.empty()) {
    difference = FirstDifference("datagram message", DatagramMessages(recordedDatagrams),
                                 DatagramMessages(clientDatagrams_), prefix);
  }
  return difference;
}

}  // namespace gameserver
