#include "ipc/detail/Channel.hpp"

#include "ipc/detail/SyncRing.hpp"

#include <corvane/platform/LogCategory.hpp>

#include <boost/json/parse.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/socket.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace corvane::ipc::detail {

namespace {

constexpr std::size_t readChunk = std::size_t{64} * 1024;
/// From this many calls in flight on a channel, a caller's asynchronous call is written by a
/// worker together with whatever else is queued by then (see Channel::send).
constexpr std::size_t deferFromCallsInFlight = 8;

std::string systemMessage(int error) {
  return std::error_code(error, std::system_category()).message();
}

PeerCredentials peerCredentials(int fd) {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return {};
  return {cred.pid, cred.uid, cred.gid};
}

CallError closeError(CloseReason reason, const std::string& detail) {
  switch (reason) {
    case CloseReason::peerLost:
      return {ConnectionError::interrupted, detail};
    case CloseReason::protocolViolation:
      return {ConnectionError::protocolViolation, detail};
    case CloseReason::helloMismatch:
    case CloseReason::invalidated:
      break;
  }
  return {ConnectionError::invalidated, detail};
}

}  // namespace

bool isSupportedHello(const std::optional<Bytes>& payload) noexcept {
  if (!payload) return false;
  boost::system::error_code error;
  const auto document = boost::json::parse(payload->view(), error);
  if (error || !document.is_object()) return false;
  const auto* version = document.as_object().if_contains("protocol");
  return version != nullptr && version->is_int64() && version->as_int64() == protocolVersion;
}

Channel::Channel(const std::shared_ptr<Runtime>& runtime, int fd, Role role,
                 std::weak_ptr<ChannelOwner> owner, std::size_t maxCallsInFlight)
    : runtime_(runtime),
      fd_(fd),
      writeFd_(::fcntl(fd, F_DUPFD_CLOEXEC, 0)),
      role_(role),
      owner_(std::move(owner)),
      maxCallsInFlight_(maxCallsInFlight),
      credentials_(peerCredentials(fd)) {
  // Blocking, so that a synchronous caller can wait in recv(2); see the class comment.
  ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
  if (writeFd_ < 0) {
    ::close(fd_);
    throw std::system_error(errno, std::system_category(), "dup");
  }
}

Channel::~Channel() {
  // Closed only here, when nobody can be reading any more, so the number is never reused under a
  // reader's feet.
  ::close(writeFd_);
  ::close(fd_);
}

void Channel::start() {
  if (role_ == Role::client) {
    // Callers that found the channel before this point have queued their frames behind it.
    const std::lock_guard writing(writeMutex_);
    helloAheadOfHeldLocked();
  }
  auto runtime = runtime_.lock();
  if (!runtime) return;
  try {
    readKey_ = runtime->watch(fd_, Interest::readEdges, shared_from_this());
    writeKey_ = runtime->watch(writeFd_, Interest::writeOnce, shared_from_this());
  } catch (const std::exception& e) {
    if (readKey_ != 0) runtime->unwatch(fd_, readKey_);
    closeNow(CloseReason::peerLost, e.what());
    keepReading(ReadResult::closed);
    return;
  }
  registered_.store(true);
  if (closed_.load()) {
    runtime->unwatch(fd_, readKey_);
    runtime->unwatch(writeFd_, writeKey_);
    keepReading(ReadResult::closed);
    return;
  }
  {
    const std::lock_guard writing(writeMutex_);
    if (flushArmed_) runtime->arm(writeFd_, writeKey_, Interest::writeOnce);
  }
  // The reading has been held since construction; a synchronous caller may already wait for it.
  keepReading(ReadResult::open);
}

bool Channel::isOpen() const noexcept {
  const std::lock_guard writing(writeMutex_);
  return open_;
}

void Channel::ready(bool writable, bool hungUp) {
  if (writable) {
    flush();
  } else {
    onReadable(hungUp);
  }
}

// ---- writing ---------------------------------------------------------------------------------

void Channel::send(Outgoing outgoing) noexcept {
  // A synchronous caller takes the reading before its call leaves, so that the answer cannot
  // wake a worker first.
  const bool synchronous = outgoing.expectsReply && outgoing.sync;
  bool reading = synchronous && takeReading();
  try {
    const auto kind = outgoing.expectsReply ? FrameKind::call : FrameKind::message;
    std::shared_ptr<SyncSlot> waiting;
    bool sent = false;
    {
      const std::lock_guard writing(writeMutex_);
      if (open_) {
        sent = true;
        const std::uint64_t serial = nextSerial_++;
        bool defer = false;
        if (outgoing.expectsReply) {
          waiting = outgoing.sync;
          // Registered before the bytes leave, since the answer may come back at once.
          const std::lock_guard pendingCalls(pendingMutex_);
          // A caller with many calls in flight is bound by throughput, not by the latency of
          // this one call: its frame waits for a worker's write, and the frames it queues
          // meanwhile leave in the same write instead of one system call (and one wake-up of
          // the peer) each.
          defer = !synchronous && pending_.size() >= deferFromCallsInFlight;
          pending_.emplace(serial, Pending{std::move(outgoing.reply), std::move(outgoing.onError),
                                           std::move(outgoing.sync)});
        }
        writeFrameLocked(kind, serial, outgoing.operation, outgoing.argument, defer);
        if (!outgoing.expectsReply && outgoing.sync) outgoing.sync->complete(Bytes(), std::nullopt);
      }
    }
    if (sent) {
      // A synchronous caller reads its own answer (see awaitOutcome).
      if (waiting) awaitOutcome(*waiting, std::exchange(reading, false));
      return;
    }
    if (std::exchange(reading, false)) keepReading(ReadResult::open);
    if (auto runtime = runtime_.lock()) {
      failOutgoing(*runtime, outgoing, {ConnectionError::interrupted, "the connection is closed"});
    } else {
      failOutgoingHere(outgoing, {ConnectionError::invalidated, "the connection is gone"});
    }
  } catch (const std::exception& e) {
    // Only allocation can fail here; the caller still gets its one answer.
    if (reading) keepReading(ReadResult::open);
    failOutgoingHere(outgoing, {ConnectionError::invalidated, e.what()});
  }
}

void Channel::answer(std::uint64_t serial, std::optional<Bytes> reply,
                     std::string_view reason) noexcept {
  auto runtime = runtime_.lock();
  // Answers given on the delivery turn with more deliveries queued behind are gathered and
  // written together; the write registration is armed for them, so the other worker writes them
  // out if the next handler blocks. The last answer of the run writes what was gathered.
  const bool gather = runtime && runtime->onWorkerThread() && runtime->deliveriesQueued();
  try {
    const std::optional<Bytes> fault = reply ? std::nullopt : std::optional<Bytes>(Bytes(reason));
    const auto kind = reply ? FrameKind::reply : FrameKind::fault;
    const auto& payload = reply ? reply : fault;
    const std::lock_guard writing(writeMutex_);
    if (open_ && writeFrameLocked(kind, serial, {}, payload, gather) && !gather && !writesHeld_
        && outSent_ < outQueue_.size()) {
      flushLocked();
    }
  } catch (const std::exception& e) {
    LogCategory::tether().error("Could not answer call {}: {}", serial, e.what());
  }
  const std::size_t left = inFlight_.fetch_sub(1) - 1;
  // Only the answer that brings the count back under the bound can end a pause.
  if (left + 1 != maxCallsInFlight_) return;
  if (!runtime) return;
  {
    const std::lock_guard role(readMutex_);
    if (readState_ != ReadState::paused) return;  // the reader sees the new count itself
    readState_ = ReadState::held;
  }
  runtime->post([self = shared_from_this()] { self->resumeReading(); });
}

bool Channel::writeFrameLocked(FrameKind kind, std::uint64_t serial, std::string_view name,
                               const std::optional<Bytes>& payload, bool defer) {
  encodeFrameHeader(header_, kind, serial, name, payload.has_value(),
                    payload ? payload->size() : 0);
  const std::span<const std::byte> body = payload ? payload->span() : std::span<const std::byte>{};
  if (defer || writesHeld_ || outSent_ < outQueue_.size()) {
    // Keep frame order: once anything waits, everything after it waits too, and the worker's
    // flush writes all of it at once.
    queueLocked(header_);
    queueLocked(body);
    if (!writesHeld_) armFlushLocked();
    return true;
  }
  std::array<iovec, 2> parts{iovec{header_.data(), header_.size()},
                             iovec{const_cast<std::byte*>(body.data()), body.size()}};  // NOLINT
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = body.empty() ? 1 : 2;
  const std::size_t total = header_.size() + body.size();
  ssize_t written = -EINTR;  // -errno from here on
  while (written == -EINTR) {
    written = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written < 0) written = -errno;
  }
  if (written < 0) {
    if (written != -EAGAIN && written != -EWOULDBLOCK) {
      writeFailedLocked(static_cast<int>(-written));
      return false;
    }
    written = 0;
  }
  const auto sent = static_cast<std::size_t>(written);
  if (sent < total) {
    if (sent < header_.size()) {
      queueLocked(std::span<const std::byte>(header_).subspan(sent));
      queueLocked(body);
    } else {
      queueLocked(body.subspan(sent - header_.size()));
    }
    armFlushLocked();
  }
  return true;
}

void Channel::helloAheadOfHeldLocked() {
  std::vector<std::byte> held(outQueue_.begin() + static_cast<std::ptrdiff_t>(outSent_),
                              outQueue_.end());
  outQueue_.clear();
  outSent_ = 0;
  writesHeld_ = false;
  if (held.empty()) {
    writeFrameLocked(FrameKind::hello, 0, {}, Bytes(helloPayload));
    return;
  }
  encodeFrameHeader(header_, FrameKind::hello, 0, {}, true, helloPayload.size());
  queueLocked(header_);
  queueLocked(Bytes(helloPayload).span());
  queueLocked(held);
  armFlushLocked();
}

void Channel::queueLocked(std::span<const std::byte> bytes) {
  if (outSent_ == outQueue_.size()) {
    outQueue_.clear();
    outSent_ = 0;
  }
  outQueue_.insert(outQueue_.end(), bytes.begin(), bytes.end());
}

void Channel::armFlushLocked() {
  if (flushArmed_) return;
  flushArmed_ = true;
  // Before start() registers the descriptor, start() arms it.
  if (!registered_.load()) return;
  if (auto runtime = runtime_.lock()) runtime->arm(writeFd_, writeKey_, Interest::writeOnce);
}

void Channel::flush() {
  const std::lock_guard writing(writeMutex_);
  flushArmed_ = false;
  if (open_) flushLocked();
}

void Channel::flushLocked() {
  while (outSent_ < outQueue_.size()) {
    const ssize_t written = ::send(fd_, outQueue_.data() + outSent_, outQueue_.size() - outSent_,
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        armFlushLocked();
        return;
      }
      writeFailedLocked(errno);
      return;
    }
    outSent_ += static_cast<std::size_t>(written);
  }
}

void Channel::writeFailedLocked(int error) {
  // The read side sees the same loss; closing here as well makes sure nobody waits for it.
  open_ = false;
  if (auto runtime = runtime_.lock()) {
    runtime->post([self = shared_from_this(), detail = "write failed: " + systemMessage(error)] {
      self->closeNow(CloseReason::peerLost, detail);
    });
  }
}

// ---- reading ---------------------------------------------------------------------------------

void Channel::onReadable(bool hungUp) {
  {
    const std::lock_guard role(readMutex_);
    if (readState_ != ReadState::armed) {
      // Whoever holds the reading, or resumes it after a pause, reads again before giving it up.
      if (readState_ != ReadState::closed) {
        readAgain_ = true;
        readToEnd_ = readToEnd_ || hungUp;
      }
      return;
    }
    readState_ = ReadState::held;
  }
  // After a hang-up no edge follows the last bytes, so the end must be read as well.
  keepReading(readAvailable(hungUp ? ReadAmount::untilEmpty : ReadAmount::whatArrived));
}

void Channel::resumeReading() {
  keepReading(processFrames());
}

void Channel::keepReading(ReadResult result) {
  for (;;) {
    HandBack next = HandBack::done;
    {
      const std::lock_guard role(readMutex_);
      next = handBackLocked(result);
    }
    switch (next) {
      case HandBack::done:
        return;
      case HandBack::process:
        result = processFrames();
        break;
      case HandBack::read:
        result = readAvailable(ReadAmount::whatArrived);
        break;
      case HandBack::readToEnd:
        result = readAvailable(ReadAmount::untilEmpty);
        break;
    }
  }
}

Channel::HandBack Channel::handBackLocked(ReadResult result) {
  if (result == ReadResult::closed || closed_.load()) {
    readState_ = ReadState::closed;
    for (auto* waiter : waiters_) waiter->poke();
    waiters_.clear();
    return HandBack::done;
  }
  if (result == ReadResult::paused) {
    // An answer sent meanwhile may have ended the pause; its sender saw us reading.
    if (inFlight_.load() < maxCallsInFlight_) return HandBack::process;
    readState_ = ReadState::paused;
    return HandBack::done;
  }
  while (!waiters_.empty()) {
    auto* waiter = waiters_.front();
    waiters_.pop_front();
    if (waiter->done()) {
      waiter->poke();
      continue;
    }
    waiter->offered = true;  // the reading stays held, now by this caller (readAgain_ too)
    waiter->poke();
    return HandBack::done;
  }
  if (std::exchange(readAgain_, false))
    return std::exchange(readToEnd_, false) ? HandBack::readToEnd : HandBack::read;
  readState_ = ReadState::armed;
  if (!readArmed_) {
    // Arming reports data that arrived while the registration was disarmed.
    readArmed_ = true;
    if (auto runtime = runtime_.lock()) runtime->arm(fd_, readKey_, Interest::readEdges);
  }
  return HandBack::done;
}

bool Channel::takeReading() {
  const std::lock_guard role(readMutex_);
  if (readState_ != ReadState::armed) return false;
  readState_ = ReadState::held;
  // An arrival that a worker was told of before the disarm finds the reading held and leaves a
  // note.
  if (std::exchange(readArmed_, false)) {
    if (auto runtime = runtime_.lock()) runtime->disarm(fd_, readKey_, Interest::readEdges);
  }
  return true;
}

void Channel::awaitOutcome(SyncSlot& slot, bool holdsReading) {
  if (holdsReading) keepReading(readUntilDone(slot, SyncRing::forThisThread()));
  std::unique_lock role(readMutex_);
  for (;;) {
    if (slot.offered) {
      slot.offered = false;
      role.unlock();
      keepReading(readUntilDone(slot, nullptr));
      role.lock();
      continue;
    }
    if (slot.done()) {
      std::erase(waiters_, &slot);
      return;
    }
    if (readState_ == ReadState::armed) {
      std::erase(waiters_, &slot);
      role.unlock();
      if (takeReading()) keepReading(readUntilDone(slot, nullptr));
      role.lock();
      continue;
    }
    // Somebody else reads: wait for the answer, or for the reading to be handed over.
    if (std::find(waiters_.begin(), waiters_.end(), &slot) == waiters_.end())
      waiters_.push_back(&slot);
    role.unlock();
    slot.waitDoneOrPoked();
    role.lock();
  }
}

Channel::ReadResult Channel::readUntilDone(SyncSlot& slot, SyncRing* ring) {
  for (;;) {
    if (slot.done()) return ReadResult::open;
    if (closed_.load()) return ReadResult::closed;
    const ReadResult result = readAvailable(ReadAmount::waitForData, std::exchange(ring, nullptr));
    if (result != ReadResult::open) return result;
  }
}

Channel::ReadResult Channel::readAvailable(ReadAmount amount, SyncRing* armWith) {
  if (closed_.load()) return ReadResult::closed;
  bool endOfStream = false;
  int readError = 0;
  // Only the first recv may block; closing shuts the socket down, which ends it.
  int flags = amount == ReadAmount::waitForData ? 0 : MSG_DONTWAIT;
  auto runtime = armWith != nullptr ? runtime_.lock() : nullptr;
  for (;;) {
    auto room = decoder_.prepare(readChunk);
    ssize_t received = 0;  // -errno on failure
    if (runtime) {
      const auto armed = Runtime::registration(readKey_, Interest::readEdges, true);
      received = armWith->receiveAndArm(fd_, room, runtime->epollDescriptor(), armed);
      runtime.reset();
      const std::lock_guard role(readMutex_);
      readArmed_ = true;
    } else {
      received = ::recv(fd_, room.data(), room.size(), flags);
      if (received < 0) received = -errno;
    }
    if (received > 0) {
      decoder_.commit(static_cast<std::size_t>(received));
      // A short read took all the data there was; more data is another edge.
      if (static_cast<std::size_t>(received) < room.size() && amount != ReadAmount::untilEmpty)
        break;
      flags = MSG_DONTWAIT;
      continue;
    }
    if (received == 0) {
      endOfStream = true;
    } else if (received == -EINTR) {
      continue;
    } else if (received != -EAGAIN && received != -EWOULDBLOCK) {
      readError = static_cast<int>(-received);
    }
    break;
  }
  // Frames that arrived before the end are still delivered.
  const ReadResult result = processFrames();
  if (closed_.load()) return ReadResult::closed;
  if (endOfStream) {
    closeFromReader(CloseReason::peerLost, decoder_.bufferedBytes() == 0
                                               ? "the peer closed the connection"
                                               : "the peer closed the connection within a frame");
    return ReadResult::closed;
  }
  if (readError != 0) {
    closeFromReader(CloseReason::peerLost, systemMessage(readError));
    return ReadResult::closed;
  }
  return result;
}

Channel::ReadResult Channel::processFrames() {
  Frame frame;
  ReadResult result = ReadResult::closed;
  while (!closed_.load()) {
    if (inFlight_.load() >= maxCallsInFlight_) {
      result = ReadResult::paused;
      break;
    }
    const auto status = decoder_.next(frame);
    if (status == FrameDecoder::Status::needMore) {
      result = ReadResult::open;
      break;
    }
    if (status == FrameDecoder::Status::violation) {
      closeFromReader(CloseReason::protocolViolation, decoder_.violation());
      break;
    }
    handleFrame(frame);
  }
  flushDeliveries();
  return closed_.load() ? ReadResult::closed : result;
}

void Channel::flushDeliveries() {
  if (deliveries_.empty()) return;
  if (auto runtime = runtime_.lock()) {
    runtime->deliver(deliveries_);
  } else {
    deliveries_.clear();
  }
}

void Channel::closeFromReader(CloseReason reason, const std::string& detail) {
  // What was read before the violation or the end is delivered before the close handler.
  flushDeliveries();
  closeNow(reason, detail);
}

void Channel::handleFrame(Frame& frame) {
  if (!helloDone_) {
    handleHello(frame);
    return;
  }
  switch (frame.kind) {
    case FrameKind::hello:
      closeFromReader(CloseReason::protocolViolation, "a second HELLO");
      return;
    case FrameKind::reply:
      complete(frame.serial, std::move(frame.payload).value_or(Bytes()), std::nullopt);
      return;
    case FrameKind::fault: {
      std::string reason(frame.payload ? frame.payload->view() : std::string_view("fault"));
      complete(frame.serial, std::nullopt,
               CallError(ConnectionError::peerFault, std::move(reason)));
      return;
    }
    case FrameKind::call:
    case FrameKind::message: {
      if (frame.serial <= lastIncomingSerial_) {
        closeFromReader(CloseReason::protocolViolation, "serials must increase");
        return;
      }
      lastIncomingSerial_ = frame.serial;
      if (frame.kind == FrameKind::call) inFlight_.fetch_add(1);
      deliveries_.emplace_back([self = shared_from_this(), incoming = std::move(frame)]() mutable {
        self->dispatch(std::move(incoming));
      });
      frame = Frame{};
      return;
    }
  }
}

void Channel::handleHello(Frame& frame) {
  if (frame.kind == FrameKind::hello && frame.serial == 0) {
    if (!isSupportedHello(frame.payload)) {
      if (role_ == Role::service) {
        const std::lock_guard writing(writeMutex_);
        writesHeld_ = false;
        outQueue_.clear();
        outSent_ = 0;
        writeFrameLocked(FrameKind::fault, 0, {},
                         Bytes(std::string_view("unsupported protocol version")));
      }
      closeFromReader(CloseReason::helloMismatch, "the peer does not speak protocol version 1");
      return;
    }
    helloDone_ = true;
    if (role_ == Role::service) {
      // Answer the HELLO ahead of anything the service queued meanwhile.
      const std::lock_guard writing(writeMutex_);
      helloAheadOfHeldLocked();
    }
    return;
  }
  if (role_ == Role::client && frame.kind == FrameKind::fault && frame.serial == 0) {
    closeFromReader(
        CloseReason::helloMismatch,
        std::string(frame.payload ? frame.payload->view() : "the service refused the HELLO"));
    return;
  }
  closeFromReader(CloseReason::protocolViolation, "the first frame is not a HELLO");
}

void Channel::complete(std::uint64_t serial, std::optional<Bytes> reply,
                       std::optional<CallError> error) {
  Pending call;
  bool known = false;
  {
    const std::lock_guard pendingCalls(pendingMutex_);
    if (auto found = pending_.find(serial); found != pending_.end()) {
      call = std::move(found->second);
      pending_.erase(found);
      known = true;
    }
  }
  if (!known) {
    // Nothing of ours waits for it: the peer answers a call it never got.
    closeFromReader(CloseReason::protocolViolation,
                    "an answer to unknown serial " + std::to_string(serial));
    return;
  }
  if (call.sync) {
    call.sync->complete(std::move(reply), std::move(error));
    return;
  }
  if (reply) {
    deliveries_.emplace_back(
        [handler = std::move(call.reply), bytes = std::move(*reply)]() mutable {
          if (handler) handler(std::move(bytes));
        });
  } else if (call.onError && *call.onError) {
    deliveries_.emplace_back(
        [handler = std::move(call.onError), failure = std::move(*error)] { (*handler)(failure); });
  }
}

void Channel::dispatch(Frame frame) {
  std::shared_ptr<ExportedObject> object;
  std::optional<OperationShape> shape;
  bool checked = false;
  {
    const std::lock_guard config(configMutex_);
    object = exportedObject_;
    if (exportedInterface_) {
      checked = true;
      shape = exportedInterface_->shape(frame.name);
    }
  }
  const bool isCall = frame.kind == FrameKind::call;
  Reply reply = isCall ? Reply(weak_from_this(), frame.serial) : Reply();
  auto refuse = [&](const std::string& reason) {
    if (isCall) {
      reply.fail(reason);
    } else {
      LogCategory::tether().error("Dropped message {}: {}", frame.name, reason);
    }
  };
  if (!object) return refuse("no exported object for " + frame.name);
  if (checked) {
    if (!shape) return refuse("unknown operation " + frame.name);
    const bool fits = isCall ? (*shape == OperationShape::argumentAndReply && frame.payload)
                                   || (*shape == OperationShape::replyOnly && !frame.payload)
                             : *shape == OperationShape::oneWay && frame.payload.has_value();
    if (!fits)
      return refuse("shape mismatch for " + frame.name + " (" + std::string(toString(*shape))
                    + ")");
  }
  try {
    object->handle(frame.name, std::move(frame.payload), std::move(reply));
  } catch (const std::exception& e) {
    LogCategory::tether().fault("Exported object threw on {}: {}", frame.name, e.what());
  } catch (...) {
    LogCategory::tether().fault("Exported object threw on {}", frame.name);
  }
}

// ---- closing ---------------------------------------------------------------------------------

void Channel::close(CloseReason reason, std::string detail) noexcept {
  {
    // Nothing more leaves from the moment close() returns, even before a worker acts.
    const std::lock_guard writing(writeMutex_);
    open_ = false;
  }
  auto runtime = runtime_.lock();
  if (!runtime) return;
  runtime->post([self = shared_from_this(), reason, detail = std::move(detail)] {
    self->closeNow(reason, detail);
  });
}

void Channel::closeNow(CloseReason reason, const std::string& detail) {
  {
    std::unique_lock closing(closeMutex_);
    if (closeState_ != CloseState::open) {
      // Closing already: wait until the calls in flight have failed, unless this thread is the
      // one closing (a handler run inline during shutdown).
      if (closer_ != std::this_thread::get_id())
        closeDone_.wait(closing, [this] { return closeState_ == CloseState::closed; });
      return;
    }
    closeState_ = CloseState::closing;
    closer_ = std::this_thread::get_id();
  }
  closed_.store(true);
  {
    const std::lock_guard writing(writeMutex_);
    open_ = false;
    outQueue_.clear();
    outSent_ = 0;
  }
  // Wakes a caller that is waiting in recv(); the descriptor itself stays open until the channel
  // is destroyed.
  ::shutdown(fd_, SHUT_RDWR);
  auto runtime = runtime_.lock();
  if (runtime && registered_.load()) {
    runtime->unwatch(fd_, readKey_);
    runtime->unwatch(writeFd_, writeKey_);
  }
  {
    const std::lock_guard role(readMutex_);
    if (readState_ != ReadState::held) {
      readState_ = ReadState::closed;
      for (auto* waiter : waiters_) waiter->poke();
      waiters_.clear();
    }
  }
  std::unordered_map<std::uint64_t, Pending> failed;
  {
    const std::lock_guard pendingCalls(pendingMutex_);
    failed.swap(pending_);
  }
  const CallError error = closeError(reason, detail);
  for (auto& [serial, call] : failed) {
    Outgoing outgoing{{},
                      std::nullopt,
                      true,
                      std::move(call.reply),
                      std::move(call.onError),
                      std::move(call.sync)};
    if (runtime) {
      failOutgoing(*runtime, outgoing, error);
    } else {
      failOutgoingHere(outgoing, error);
    }
  }
  std::shared_ptr<ExportedObject> object;
  std::function<void()> handler;
  {
    const std::lock_guard config(configMutex_);
    // Dropping the object breaks cycles through proxies it may hold.
    object = std::move(exportedObject_);
    handler = std::move(closeHandler_);
    closedConfig_ = true;
  }
  if (runtime) {
    runtime->deliver([object = std::move(object), handler = std::move(handler)]() mutable {
      object.reset();
      if (handler) handler();
    });
  }
  if (auto owner = owner_.lock()) owner->channelClosed(shared_from_this(), reason, detail);
  {
    const std::lock_guard closing(closeMutex_);
    closeState_ = CloseState::closed;
  }
  closeDone_.notify_all();
}

// ---- configuration ---------------------------------------------------------------------------

void Channel::setExportedInterface(std::optional<InterfaceDescription> interface) {
  const std::lock_guard config(configMutex_);
  exportedInterface_ = std::move(interface);
}

void Channel::setExportedObject(std::shared_ptr<ExportedObject> object) {
  const std::lock_guard config(configMutex_);
  exportedObject_ = std::move(object);
}

void Channel::setRemoteInterface(std::optional<InterfaceDescription> interface) {
  const std::lock_guard config(configMutex_);
  remoteInterface_ = std::move(interface);
}

std::optional<InterfaceDescription> Channel::remoteInterface() const {
  const std::lock_guard config(configMutex_);
  return remoteInterface_;
}

void Channel::setCloseHandler(std::function<void()> handler) {
  {
    const std::lock_guard config(configMutex_);
    if (!closedConfig_) {
      closeHandler_ = std::move(handler);
      return;
    }
  }
  // Already closed: the handler still runs once.
  if (auto runtime = runtime_.lock(); runtime && handler) runtime->deliver(std::move(handler));
}

}  // namespace corvane::ipc::detail
