#include "common/Recording.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "protocol/Wire.h"

namespace recording {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kHelloHeader = wire::kHelloHeaderSize;
// What a frame costs beyond its payload: the block, its Ethernet, IPv4 and TCP headers.
constexpr size_t kFrameOverhead = 96;
// TCP payload per recorded segment: one IPv4 packet's worth, less its headers.
constexpr size_t kSegment = 65000;
constexpr const char* kCut = "recording cut at its size limit";
// The thread order goes to the file in blocks of about this size.
constexpr size_t kOrderBlock = 1 << 16;

uint64_t Microseconds(std::chrono::system_clock::time_point t) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count());
}

}  // namespace

Bytes BlankHello(const uint8_t* data, size_t size) {
  Bytes out(data, data + std::min(size, kHelloHeader));
  out.resize(kHelloHeader + 4, 0);  // an empty token
  if (size < kHelloHeader + 4) return out;
  uint32_t token;
  std::memcpy(&token, data + kHelloHeader, 4);
  const size_t marker = kHelloHeader + 4 + size_t{token};
  if (marker < size && data[marker] == networking::MSG_PSWD) {
    out.insert(out.end(), {networking::MSG_PSWD, 0, 0, 0, 0});  // an empty password
  }
  return out;
}

Recorder::Recorder(const std::string& path, uint64_t limitBytes, const std::string& parameters,
                   std::function<void()> onFull)
    : file_(path, parameters),
      limit_(limitBytes),
      onFull_(std::move(onFull)),
      start_(Clock::now()),
      startMicroseconds_(Microseconds(std::chrono::system_clock::now())) {}

uint64_t Recorder::Now() const {
  return startMicroseconds_ +
         static_cast<uint64_t>(
             std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start_).count());
}

bool Recorder::Admit(size_t bytes, uint64_t time) {
  if (full_) return false;
  if (file_.Size() + bytes + kFrameOverhead > limit_) {
    full_ = true;
    if (onFull_) onFull_();
    return false;
  }
  file_.SetTime(time != 0 ? time : Now());
  return true;
}

void Recorder::FlushReceived() {
  for (size_t at = 0; at < received_.size(); at += kSegment) {
    const size_t n = std::min(kSegment, received_.size() - at);
    if (!Admit(n, receivedTime_)) break;
    tcp_->FromServer(Bytes(received_.begin() + long(at), received_.begin() + long(at + n)));
  }
  received_.clear();
}

void Recorder::Note(const std::string& comment) {
  std::lock_guard<std::mutex> lock(mutex_);
  file_.CommentNextFrame(comment);
}

void Recorder::Heard(order::Event event) {
  std::lock_guard<std::mutex> lock(mutex_);
  order_.Add(event);
  if (order_.Size() >= kOrderBlock) FlushOrder();
}

void Recorder::FlushOrder() {
  const Bytes runs = order_.Take();
  if (!runs.empty() && Admit(runs.size())) file_.Custom(runs);
}

void Recorder::OnSocketEvent(const orvex::net::SocketEvent& event) noexcept {
  using Kind = orvex::net::SocketEvent::Kind;
  std::lock_guard<std::mutex> lock(mutex_);
  switch (event.kind) {
    case Kind::kTcpRead:
    case Kind::kTcpFlushed:
      return OnTcp(event);
    case Kind::kDatagramDelivered:
    case Kind::kDatagramFlushed:
      return OnDatagram(event);
    case Kind::kDatagramTransmitted:  // a replay sends what the client flushed, before the
    case Kind::kDatagramJudged:       // simulator: the copies on the wire are not its input
      return;
  }
}

void Recorder::OnTcp(const orvex::net::SocketEvent& event) {
  const unsigned char* const data = event.data;
  const unsigned long size = event.size;
  if (tcpSocket_ == nullptr) {
    if (!Admit(3 * kFrameOverhead)) return;
    tcpSocket_ = &event.socket;
    tcp_ = std::make_unique<capture::TcpConnection>(file_, event.socket.GetLocalPort(),
                                                    event.socket.GetRemotePort());
  }
  if (&event.socket != tcpSocket_) return;
  if (event.incoming) {
    if (received_.empty()) receivedTime_ = Now();
    received_.insert(received_.end(), data, data + size);
    if (received_.size() >= kSegment) FlushReceived();
    return;
  }
  FlushReceived();
  Bytes bytes(data, data + size);
  if (!helloSeen_) {
    helloSeen_ = true;
    bytes = BlankHello(data, size);
  }
  for (size_t at = 0; at < bytes.size(); at += kSegment) {
    const size_t n = std::min(kSegment, bytes.size() - at);
    if (!Admit(n)) return;
    tcp_->FromClient(Bytes(bytes.begin() + long(at), bytes.begin() + long(at + n)));
  }
}

void Recorder::OnDatagram(const orvex::net::SocketEvent& event) {
  if (udpSocket_ == nullptr) {
    udpSocket_ = &event.socket;
    udpPort_ = event.socket.GetLocalPort();
  }
  if (&event.socket != udpSocket_) return;
  if (tcp_) FlushReceived();
  if (!Admit(event.size)) return;
  const Bytes payload(event.data, event.data + event.size);
  event.incoming ? file_.Udp(event.peerPort, udpPort_, payload)
                 : file_.Udp(udpPort_, event.peerPort, payload);
}

void Recorder::Close(const std::string& ending) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (tcp_) FlushReceived();
  FlushOrder();
  file_.SetTime(Now());
  file_.Close((full_ ? std::string(kCut) + "; " : std::string("recording complete; ")) + ending);
}

Recording LoadRecording(const std::string& path) {
  return LoadRecording(capture::ReadFile(path), path);
}

Recording LoadRecording(const Bytes& file, const std::string& path) {
  capture::Capture capture = capture::ReadCapture(file, path);
  Recording recording;
  recording.parameters = capture.comment;
  recording.ending = capture.closingComment;
  recording.complete = capture.closed && capture.closingComment.find(kCut) == std::string::npos;
  const auto syn = std::find_if(capture.frames.begin(), capture.frames.end(), [](const auto& f) {
    return f.tcp && (f.flags & capture::TcpConnection::kSyn) &&
           !(f.flags & capture::TcpConnection::kAck);
  });
  if (syn == capture.frames.end()) {
    throw std::runtime_error(path + ": holds no game session (no TCP connection opens in it)");
  }
  const uint16_t server = syn->destinationPort, client = syn->sourcePort;
  recording.serverPort = server;
  recording.ordered = !capture.custom.empty();
  for (const Bytes& runs : capture.custom) {
    recording.order.insert(recording.order.end(), runs.begin(), runs.end());
  }
  try {
    order::CountEvents(recording.order);
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(path + ": " + e.what());
  }
  for (capture::Frame& frame : capture.frames) {
    Item::Kind kind;
    if (frame.tcp && frame.sourcePort == server && frame.destinationPort == client) {
      kind = Item::kServerTcp;
    } else if (frame.tcp && frame.sourcePort == client && frame.destinationPort == server) {
      kind = Item::kClientTcp;
    } else if (!frame.tcp && frame.sourcePort == server) {
      kind = Item::kServerDatagram;
    } else if (!frame.tcp && frame.destinationPort == server) {
      kind = Item::kClientDatagram;
    } else {
      continue;
    }
    if (frame.tcp && frame.payload.empty()) continue;
    if (!recording.items.empty()) {
      const uint64_t before = recording.items.back().time;
      if (frame.time < before) {
        throw std::runtime_error(path + ": frame " + std::to_string(recording.items.size()) +
                                 " of the session is stamped before the one before it");
      }
      if (frame.time - before > kLongestGapMicroseconds) {
        throw std::runtime_error(
            path + ": frame " + std::to_string(recording.items.size()) +
            " of the session comes more than a minute after the one before it");
      }
    }
    recording.items.push_back({kind, frame.time, std::move(frame.payload)});
  }
  return recording;
}

}  // namespace recording
