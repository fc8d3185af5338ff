// TCP stream. The descriptor stays in blocking mode; the reader waits for bytes in poll up to
// the stall limit before each recv. The writer never waits: a flush sends with MSG_DONTWAIT
// what the kernel takes and queues the rest for the socket's sender thread, which waits in
// poll and notices a peer that stops reading. Reader and writer share only the descriptor
// and the atomics; the writer and the sender thread share the queue under sendMutex_.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <set>
#include <stdexcept>

#include "net/Address.h"
#include "net/Poll.h"
#include "net/SocketObserver.h"
#include "net/TcpConnection.h"

namespace orvex::net {
namespace {

constexpr unsigned long kDefaultBufferSize = 64ul << 10;
constexpr const char* kClosedByPeer = "Connection closed by peer";

// Bytes moved by connections this process opened (see ClientBytes()).
std::atomic<uint64_t> clientBytesIn{0};
std::atomic<uint64_t> clientBytesOut{0};

void SetBlocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK)) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

// Connects a non-blocking socket to `endpoint` by `deadline`; returns the descriptor or -1
// with `reason` set.
int ConnectOne(const Endpoint& endpoint, std::chrono::steady_clock::time_point deadline,
               bool bounded, std::string& reason) {
  int fd = socket(endpoint.Family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    reason = ErrorText(errno);
    return -1;
  }
  int rc = connect(fd, endpoint.Get(), endpoint.length);
  if (rc != 0 && errno == EINPROGRESS) {
    pollfd entry{fd, POLLOUT, 0};
    int wait = -1;
    if (bounded) {
      auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      wait = static_cast<int>(std::max<long>(0, left.count()));
    }
    rc = PollRetrying(&entry, 1, wait);
    if (rc == 0) {
      close(fd);
      reason = "Timed out";
      return -1;
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (rc < 0) {
      error = errno;
    } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
      error = errno;
    }
    rc = error == 0 ? 0 : -1;
    errno = error;
  }
  if (rc != 0) {
    reason = ErrorText(errno);
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

namespace {

// The live connections this process opened, for ShutdownClientConnections.
struct OpenedConnections {
  std::mutex mutex;
  std::set<TcpConnection*> live;
};
OpenedConnections& Opened() {
  static OpenedConnections opened;
  return opened;
}

}  // namespace

void TcpConnection::ShutdownClientConnections() {
  OpenedConnections& opened = Opened();
  std::lock_guard<std::mutex> lock(opened.mutex);
  for (TcpConnection* connection : opened.live) connection->Shutdown();
}

TcpConnection::TcpConnection(const std::string& host, uint16_t port, unsigned long bufferSize,
                             int timeoutMs)
    : stallLimitMs_(timeoutMs) {
  clientForm_ = true;
  const std::string failure = "Connection to " + HostPortText(host, port) + " failed: ";
  std::vector<Endpoint> endpoints;
  try {
    endpoints = Resolve(host, port, SOCK_STREAM);
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(failure + e.what());
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string reason;
  for (const Endpoint& endpoint : endpoints) {
    fd_ = ConnectOne(endpoint, deadline, timeoutMs >= 0, reason);
    if (fd_ >= 0) break;
  }
  if (fd_ < 0) throw std::runtime_error(failure + reason);
  Setup(bufferSize);
  std::lock_guard<std::mutex> lock(Opened().mutex);
  Opened().live.insert(this);
}

TcpConnection::TcpConnection(int connectedFd, int timeoutMs) : stallLimitMs_(timeoutMs) {
  fd_ = connectedFd;
  Setup(0);
}

void TcpConnection::Setup(unsigned long bufferSize) {
  SetBlocking(fd_);
  int one = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  Endpoint peer;
  peer.length = sizeof peer.storage;
  if (getpeername(fd_, peer.Get(), &peer.length) == 0) {
    remoteAddress_ = AddressText(peer.Get());
    remotePort_ = AddressPort(peer.Get());
  }
  bufferSize_ = bufferSize != 0 ? bufferSize : kDefaultBufferSize;
  in_.resize(bufferSize_);
  out_.reserve(bufferSize_);
}

// What is still queued gets a short while to leave (a goodbye after a burst), as long as the
// peer keeps taking it; a stalled peer does not hold the owner.
TcpConnection::~TcpConnection() {
  if (IsClientForm()) {
    std::lock_guard<std::mutex> lock(Opened().mutex);
    Opened().live.erase(this);
  }
  std::unique_lock<std::mutex> lock(sendMutex_);
  if (!sender_.joinable()) return;
  constexpr auto kLinger = std::chrono::milliseconds(300);
  sendWake_.wait_for(lock, kLinger, [this] { return queue_.empty() || !writeError_.empty(); });
  stopSender_ = true;
  lock.unlock();
  sendWake_.notify_all();
  sender_.join();
}

// ---------------------------------------------------------------------------------------
// Reader side

int TcpConnection::Poll(int timeoutMs) {
  if (inPos_ < inEnd_) return 1;
  return Socket::Poll(timeoutMs);
}

void TcpConnection::ThrowReadError(int error) const {
  if (shutdown_.load()) throw std::runtime_error("Connection shut down");
  if (error == 0 || error == ECONNRESET || error == EPIPE) throw std::runtime_error(kClosedByPeer);
  throw std::runtime_error("TCP receive failed: " + ErrorText(error));
}

unsigned long TcpConnection::Receive(unsigned char* data, unsigned long size, bool dontWait) {
  if (!dontWait && stallLimitMs_ >= 0) {
    // A read is only ever asked for bytes that belong to something already started (the
    // caller polls before a message), so a silence this long is a peer that stopped halfway.
    pollfd entry{fd_, POLLIN, 0};
    const int rc = PollRetrying(&entry, 1, stallLimitMs_);
    if (rc == 0) {
      throw std::runtime_error("TCP read stalled: no byte for " + std::to_string(stallLimitMs_) +
                               " ms");
    }
    if (rc < 0) ThrowReadError(errno);
  }
  for (;;) {
    ssize_t n = recv(fd_, data, size, dontWait ? MSG_DONTWAIT : 0);
    if (n > 0) {
      bytesIn_.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      if (clientForm_) clientBytesIn.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      return static_cast<unsigned long>(n);
    }
    if (n == 0) ThrowReadError(0);
    if (errno == EINTR) continue;
    if (dontWait && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
    ThrowReadError(errno);
  }
}

void TcpConnection::Fill() {
  inPos_ = 0;
  inEnd_ = Receive(in_.data(), in_.size(), false);
}

void TcpConnection::Read(unsigned char* data, unsigned long size) {
  unsigned char* const start = data;
  const unsigned long asked = size;
  while (size > 0) {
    if (inPos_ == inEnd_) {
      // A read at least as large as the buffer skips the extra copy.
      if (size >= in_.size()) {
        unsigned long n = Receive(data, size, false);
        data += n;
        size -= n;
        continue;
      }
      Fill();
    }
    unsigned long n = std::min(size, inEnd_ - inPos_);
    std::memcpy(data, in_.data() + inPos_, n);
    inPos_ += n;
    data += n;
    size -= n;
  }
  if (asked > 0) Observe(true, start, asked);
}

unsigned long TcpConnection::ReadSome(unsigned char* data, unsigned long size) {
  if (size == 0) return 0;
  unsigned long n;
  if (inPos_ == inEnd_) {
    n = Receive(data, size, true);
  } else {
    n = std::min(size, inEnd_ - inPos_);
    std::memcpy(data, in_.data() + inPos_, n);
    inPos_ += n;
  }
  if (n > 0) Observe(true, data, n);
  return n;
}

void TcpConnection::Observe(bool read, const unsigned char* data, unsigned long size) const {
  if (!detail::Observed()) return;
  detail::Notify({read ? SocketEvent::Kind::kTcpRead : SocketEvent::Kind::kTcpFlushed, read, *this,
                  remotePort_, data, size, std::chrono::steady_clock::now()});
}

filesystem::ReadOnlyStream TcpConnection::ReadStream() {
  return Stream::ReadStream();
}

// ---------------------------------------------------------------------------------------
// Writer side

void TcpConnection::Write(const unsigned char* data, unsigned long size) {
  out_.insert(out_.end(), data, data + size);
}

// The writer thread only hands bytes over: the kernel takes what it can at once and the rest
// joins the send queue, which the sender thread drains. Nothing here waits on the peer.
void TcpConnection::Flush() {
  std::unique_lock<std::mutex> lock(sendMutex_);
  if (!writeError_.empty()) {
    out_.clear();
    throw std::runtime_error(writeError_);
  }
  if (out_.empty()) return;
  Observe(false, out_.data(), out_.size());
  // The cap counts what earlier flushes left waiting: one large flush (a joining client's
  // whole scene) is taken, a peer that does not keep up frame after frame is not.
  if (queued_ > kSendQueueCap) {
    Fail("TCP send queue over its cap of " + std::to_string(kSendQueueCap >> 20) +
         " MiB: the peer is not reading");
    out_.clear();
    throw std::runtime_error(writeError_);
  }
  if (queue_.empty()) {
    // The usual case: the kernel takes it all and the buffer is kept for the next frame.
    const long sent = SendSome(out_.data(), out_.size());
    if (sent < 0) {
      out_.clear();
      throw std::runtime_error(writeError_);
    }
    if (static_cast<unsigned long>(sent) == out_.size()) {
      out_.clear();
      // A burst may have grown the buffer far beyond its usual size; give the memory back.
      if (out_.capacity() > 4 * bufferSize_) {
        std::vector<unsigned char>().swap(out_);
        out_.reserve(bufferSize_);
      }
      return;
    }
    queued_ = out_.size() - static_cast<unsigned long>(sent);
    frontSent_ = static_cast<unsigned long>(sent);
    lastProgress_ = std::chrono::steady_clock::now();
  } else {
    queued_ += out_.size();
  }
  queue_.push_back(std::move(out_));
  out_ = std::vector<unsigned char>();
  out_.reserve(bufferSize_);
  if (!queue_.empty() && stallLimitMs_ >= 0 &&
      std::chrono::steady_clock::now() - lastProgress_ > std::chrono::milliseconds(stallLimitMs_)) {
    Fail("TCP flush stalled: the peer took nothing for " + std::to_string(stallLimitMs_) + " ms");
    throw std::runtime_error(writeError_);
  }
  if (queue_.empty()) return;
  if (!sender_.joinable()) sender_ = std::thread([this] { SendLoop(); });
  lock.unlock();
  sendWake_.notify_one();
}

void TcpConnection::Fail(std::string error) {
  writeError_ = std::move(error);
  queue_.clear();
  queued_ = 0;
  frontSent_ = 0;
}

long TcpConnection::SendSome(const unsigned char* data, unsigned long size) {
  unsigned long sent = 0;
  while (sent < size) {
    const ssize_t n = send(fd_, data + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      sent += static_cast<unsigned long>(n);
      bytesOut_.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      if (clientForm_)
        clientBytesOut.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      continue;
    }
    const int error = errno;
    if (n < 0 && error == EINTR) continue;
    if (n < 0 && (error == EAGAIN || error == EWOULDBLOCK)) break;
    if (shutdown_.load()) {
      Fail("Connection shut down");
    } else if (error == EPIPE || error == ECONNRESET) {
      Fail(kClosedByPeer);
    } else {
      Fail("TCP send failed: " + ErrorText(error));
    }
    return -1;
  }
  return static_cast<long>(sent);
}

bool TcpConnection::SendQueued() {
  while (!queue_.empty()) {
    const std::vector<unsigned char>& front = queue_.front();
    const long n = SendSome(front.data() + frontSent_, front.size() - frontSent_);
    if (n < 0) return false;
    if (n == 0) return true;
    frontSent_ += static_cast<unsigned long>(n);
    queued_ -= static_cast<unsigned long>(n);
    lastProgress_ = std::chrono::steady_clock::now();
    if (frontSent_ < front.size()) return true;  // the kernel is full
    queue_.pop_front();
    frontSent_ = 0;
  }
  return true;
}

// The sender thread: waits for the socket to take more while the queue holds bytes. A peer
// that takes nothing for the stall limit fails the connection here, so the next flush
// reports it even when the writer flushes nothing new.
void TcpConnection::SendLoop() {
  pthread_setname_np(pthread_self(), "tcp-send");
  constexpr int kSliceMs = 100;  // how soon a stop or a stall is noticed
  std::unique_lock<std::mutex> lock(sendMutex_);
  while (!stopSender_) {
    if (queue_.empty() || !writeError_.empty()) {
      sendWake_.wait(lock);
      continue;
    }
    lock.unlock();
    pollfd entry{fd_, POLLOUT, 0};
    PollRetrying(&entry, 1, kSliceMs);
    lock.lock();
    if (!writeError_.empty() || !SendQueued()) continue;
    if (!queue_.empty() && stallLimitMs_ >= 0 &&
        std::chrono::steady_clock::now() - lastProgress_ >
            std::chrono::milliseconds(stallLimitMs_)) {
      Fail("TCP flush stalled: the peer took nothing for " + std::to_string(stallLimitMs_) + " ms");
    }
    // A destructor may wait for the end.
    if (queue_.empty() || !writeError_.empty()) sendWake_.notify_all();
  }
}

unsigned long TcpConnection::GetBufferSize() const {
  return out_.size();
}

TcpConnection::ByteCounts TcpConnection::ClientBytes() {
  return {clientBytesIn.load(std::memory_order_relaxed),
          clientBytesOut.load(std::memory_order_relaxed)};
}

void TcpConnection::Shutdown() {
  shutdown_.store(true);
  shutdown(fd_, SHUT_RDWR);
}

}  // namespace orvex::net
