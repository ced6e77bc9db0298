#include "ipc/detail/Channel.hpp"

#include <corvane/platform/LogCategory.hpp>

#include <boost/asio/post.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace corvane::ipc::detail {

namespace {

constexpr std::size_t readChunk = std::size_t{64} * 1024;
/// What one worker reads of a channel before it lets the others have a turn.
constexpr std::size_t readPerTurn = std::size_t{1024} * 1024;
/// From this many calls in flight, an asynchronous call is written together with the ones that
/// follow it (see the class comment).
constexpr std::size_t batchFromCallsInFlight = 8;
constexpr std::size_t partsPerWrite = 64;
/// Reading is edge-triggered: a worker is told of each arrival without arming anything again.
constexpr std::uint32_t readEvents = EPOLLIN | EPOLLRDHUP | EPOLLET;

/// This thread's buffer to read into before the bytes go to a session (one per thread, made on
/// its first read).
std::span<std::byte> scratch() {
  thread_local std::vector<std::byte> buffer(readChunk);
  return buffer;
}

int duplicate(int fd) {
  const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) {
    const int failure = errno;
    ::close(fd);
    throw std::system_error(failure, std::system_category(), "dup");
  }
  return copy;
}

}  // namespace

// ---- outgoing helpers shared by the proxy targets ---------------------------------------------

void SyncSlot::complete(CallResult result) {
  // Notified under the lock: the waiter may return, and the slot on its stack go, as soon as it
  // sees the result.
  const std::lock_guard state(mutex_);
  result_.emplace(std::move(result));
  ready_.notify_one();
}

bool SyncSlot::done() {
  const std::lock_guard state(mutex_);
  return result_.has_value();
}

std::optional<CallResult> SyncSlot::take(std::optional<Clock::time_point> deadline) {
  std::unique_lock state(mutex_);
  const auto completed = [this] { return result_.has_value(); };
  if (!deadline) {
    ready_.wait(state, completed);
  } else if (!ready_.wait_until(state, *deadline, completed)) {
    return std::nullopt;
  }
  return std::move(*result_);
}

std::optional<CallError> checkOutgoing(const InterfaceDescription* interface,
                                       std::string_view operation, OperationShape shape) {
  if (!isValidOperationName(operation))
    return CallError(ConnectionError::unknownOperation, "invalid operation name");
  if (interface == nullptr) return std::nullopt;
  const auto expected = interface->shape(operation);
  if (!expected) {
    return CallError(ConnectionError::unknownOperation,
                     std::string(operation) + " is not in " + interface->name());
  }
  if (*expected != shape) {
    return CallError(ConnectionError::shapeMismatch,
                     std::string(operation) + " is " + std::string(toString(*expected)));
  }
  return std::nullopt;
}

void refuse(Outgoing& outgoing, CallError error, const DeliveryExecutor& delivery) noexcept {
  if (!outgoing.completion) {
    LogCategory::tether().error("Could not send {}: {}", outgoing.operation, error);
    return;
  }
  if (outgoing.slot != nullptr) {
    outgoing.completion(CallResult(std::move(error)));
    return;
  }
  try {
    boost::asio::post(delivery, [completion = std::move(outgoing.completion),
                                 error = std::move(error)]() mutable {
      runUserCode("completion", [&] { completion(CallResult(std::move(error))); });
    });
  } catch (const std::exception& e) {
    // Only allocation can fail here; the caller still gets its one outcome.
    LogCategory::tether().fault("Could not deliver the failure of {}: {}", outgoing.operation,
                                e.what());
  }
}

std::string systemMessage(int error) {
  return std::error_code(error, std::system_category()).message();
}

std::optional<PeerCredentials> peerCredentials(int fd) noexcept {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return std::nullopt;
  return PeerCredentials{cred.pid, cred.uid, cred.gid};
}

// ---- the channel -----------------------------------------------------------------------------

Channel::Channel(std::shared_ptr<Runtime> runtime, int fd, PeerCredentials credentials, Role role,
                 SessionLimits limits, std::shared_ptr<ReceiveBudget> budget,
                 DeliveryExecutor delivery, std::weak_ptr<ChannelOwner> owner,
                 std::string_view resumeToken)
    : runtime_(std::move(runtime)),
      fd_(fd),
      writeFd_(duplicate(fd)),
      credentials_(credentials),
      delivery_(std::move(delivery)),
      owner_(std::move(owner)),
      session_(role, limits, std::move(budget), resumeToken) {
  // Blocking, for a synchronous caller's recv(2) (see the class comment).
  ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
}

Channel::~Channel() {
  // Closed only here, when nobody can be reading any more, so the number is never reused under a
  // reader's feet.
  ::close(writeFd_);
  ::close(fd_);
}

void Channel::start() {
  const std::lock_guard state(mutex_);
  readKey_ = runtime_->watch(fd_, shared_from_this());
  try {
    writeKey_ = runtime_->watch(writeFd_, shared_from_this());
  } catch (...) {
    runtime_->unwatch(fd_, readKey_);
    throw;
  }
  started_ = true;
  if (session_.closed()) {
    afterSessionLocked();
    return;
  }
  readArmed_ = true;
  runtime_->arm(fd_, readKey_, readEvents);
  afterSessionLocked();  // a client's HELLO, and whatever its callers queued behind it
}

// ---- sending ---------------------------------------------------------------------------------

void Channel::send(Outgoing outgoing) noexcept {
  if (outgoing.shape == OperationShape::oneWay) {
    sendMessage(outgoing);
    return;
  }
  SyncSlot* slot = outgoing.slot;
  const auto deadline = outgoing.deadline;
  bool reading = false;
  try {
    const std::lock_guard state(mutex_);
    if (slot != nullptr && !callerReads_ && started_ && session_.wantsInput()) {
      // Take the reading before the CALL leaves, so that its answer wakes nobody but us.
      callerReads_ = reading = true;
      if (readArmed_) {
        runtime_->disarm(fd_, readKey_);
        readArmed_ = false;
      }
    }
    const bool batch = slot == nullptr && session_.callsInFlight() >= batchFromCallsInFlight;
    session_.call(outgoing.operation, std::move(outgoing.argument), std::move(outgoing.completion),
                  slot != nullptr);
    afterSessionLocked(!batch);
  } catch (const std::exception& e) {
    // Only allocation can fail here; the caller still gets its one outcome.
    if (outgoing.completion) {
      refuse(outgoing, CallError(ConnectionError::invalidated, e.what()), delivery_);
    }
  }
  if (reading) readFor(*slot, deadline);
}

void Channel::sendMessage(Outgoing& outgoing) noexcept {
  std::optional<CallError> failure;
  try {
    const std::lock_guard state(mutex_);
    if (!session_.call(outgoing.operation, std::move(outgoing.argument), {})) {
      failure = Session::closeError(session_.closeReason(), session_.closeDetail());
    }
    afterSessionLocked();
  } catch (const std::exception& e) {
    failure.emplace(ConnectionError::invalidated, e.what());
  }
  if (failure) {
    refuse(outgoing, std::move(*failure), delivery_);
  } else if (outgoing.slot != nullptr) {
    outgoing.completion(CallResult(Bytes()));  // sent: a synchronous sender returns
  }
}

void Channel::answer(std::uint64_t serial, std::optional<Bytes> reply,
                     std::string_view reason) noexcept {
  try {
    const std::lock_guard state(mutex_);
    session_.answer(serial, std::move(reply), reason);
    // While more deliveries wait behind this handler, its answer waits for the last one's and
    // they leave in one write; a worker writes them should one of those handlers block.
    afterSessionLocked(deliveriesQueued_ == 0);
  } catch (const std::exception& e) {
    LogCategory::tether().error("Could not answer call {}: {}", serial, e.what());
  }
}

void Channel::afterSessionLocked(bool flushNow) {
  if (!session_.closed() && started_) {
    if (flushNow) {
      flushLocked();
    } else {
      scheduleFlushLocked();
    }
  }
  std::vector<SessionEvent> events;
  session_.takeEvents(events);
  // A synchronous caller's outcome goes straight to its slot; the rest is delivered in order, as
  // one task per batch.
  std::erase_if(events, [this](SessionEvent& event) {
    if (std::holds_alternative<Frame>(event)) {
      ++deliveriesQueued_;
      return false;
    }
    auto* completed = std::get_if<Completed>(&event);
    if (completed == nullptr || !completed->synchronous) return false;
    completed->completion(std::move(completed->result));  // fills the caller's slot
    return true;
  });
  if (!events.empty()) {
    boost::asio::post(delivery_, [self = shared_from_this(), events = std::move(events)]() mutable {
      self->deliver(events);
    });
  }
  if (session_.closed() && !tornDown_) teardownLocked();
}

void Channel::flushLocked() {
  std::array<std::span<const std::byte>, partsPerWrite> parts;
  std::array<iovec, partsPerWrite> vectors{};
  while (session_.pendingOutput() > 0) {
    const std::size_t count = session_.gatherOutput(parts);
    for (std::size_t i = 0; i < count; ++i) {
      vectors[i] = {const_cast<std::byte*>(parts[i].data()), parts[i].size()};  // NOLINT: C API
    }
    msghdr message{};
    message.msg_iov = vectors.data();
    message.msg_iovlen = count;
    const ssize_t written = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        if (!writeArmed_) {
          writeArmed_ = true;
          runtime_->arm(writeFd_, writeKey_, EPOLLOUT);
        }
        return;
      }
      session_.close(CloseReason::peerLost, "write failed: " + systemMessage(errno));
      return;
    }
    session_.wrote(static_cast<std::size_t>(written));
  }
}

void Channel::scheduleFlushLocked() {
  if (writeArmed_ || session_.pendingOutput() == 0) return;
  // A worker writes once the socket reports writable, which it does at once: a moment later, with
  // whatever was queued meanwhile.
  writeArmed_ = true;
  runtime_->arm(writeFd_, writeKey_, EPOLLOUT);
}

// ---- reading ---------------------------------------------------------------------------------

bool Channel::readableBefore(SyncSlot::Clock::time_point deadline) const {
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - SyncSlot::Clock::now());
    if (left.count() <= 0) return false;
    pollfd watched{fd_, POLLIN | POLLRDHUP, 0};
    const int ready = ::poll(
        &watched, 1,
        static_cast<int>(std::min<std::int64_t>(left.count(), std::numeric_limits<int>::max())));
    // Readable, closed or failed: recv(2) says which, without blocking.
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return true;
  }
}

void Channel::ready(std::uint64_t key, std::uint32_t events) {
  const std::lock_guard state(mutex_);
  if (tornDown_) return;
  if (key == writeKey_) {
    writeArmed_ = false;
    afterSessionLocked();
    return;
  }
  if (callerReads_) return;  // the caller arms the registration again when it is done
  // After a hang-up no further edge comes, so the end is read as well.
  const bool more = readLocked((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0);
  afterSessionLocked();
  if (tornDown_) return;
  if (!session_.wantsInput()) {
    runtime_->disarm(fd_, readKey_);
    readArmed_ = false;
  } else if (more) {
    // This turn's share is read; arming again reports the rest to whichever worker is free.
    runtime_->arm(fd_, readKey_, readEvents);
  }
}

bool Channel::readLocked(bool toTheEnd) {
  std::size_t taken = 0;
  while (session_.wantsInput()) {
    if (taken >= readPerTurn) return true;
    // The rest of a large frame goes straight into its buffer; anything else lands in this
    // worker's scratch buffer first, and the session keeps only what is left of a frame: a
    // client costs no receive memory before it sends, nor after its frames are taken.
    auto room = session_.frameRoom(readChunk);
    const bool inPlace = !room.empty();
    if (!inPlace) room = scratch();
    const ssize_t got = ::recv(fd_, room.data(), room.size(), MSG_DONTWAIT);
    if (got > 0) {
      const auto size = static_cast<std::size_t>(got);
      if (!inPlace) std::copy_n(room.begin(), size, session_.receiveBuffer(size).begin());
      session_.received(size);
      taken += size;
      // A short read took all that had arrived; what comes later is a new edge.
      if (!toTheEnd && size < room.size()) return false;
    } else if (got == 0) {
      session_.receivedEnd();
    } else if (errno != EINTR) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
      session_.close(CloseReason::peerLost, "read failed: " + systemMessage(errno));
    }
  }
  return false;
}

void Channel::readFor(SyncSlot& slot, std::optional<SyncSlot::Clock::time_point> deadline) {
  const auto buffer = scratch();
  while (!slot.done()) {
    if (deadline && !readableBefore(*deadline)) break;  // the caller gives up; a worker reads on
    const ssize_t got = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    const int failure = errno;
    const std::lock_guard state(mutex_);
    if (got > 0) {
      const auto size = static_cast<std::size_t>(got);
      auto room = session_.receiveBuffer(size);
      std::copy_n(buffer.begin(), size, room.begin());
      session_.received(size);
    } else if (got == 0) {
      session_.receivedEnd();
    } else {
      session_.close(CloseReason::peerLost, "read failed: " + systemMessage(failure));
    }
    afterSessionLocked();
    if (!session_.wantsInput()) break;
  }
  {
    const std::lock_guard state(mutex_);
    callerReads_ = false;
    if (!tornDown_ && session_.wantsInput()) {
      // Arming reports whatever arrived behind our answer.
      readArmed_ = true;
      runtime_->arm(fd_, readKey_, readEvents);
    }
  }
}

// ---- delivery --------------------------------------------------------------------------------

void Channel::deliver(std::vector<SessionEvent>& events) {
  for (auto& event : events) {
    if (auto* frame = std::get_if<Frame>(&event)) {
      dispatch(std::move(*frame));
    } else if (auto* completed = std::get_if<Completed>(&event)) {
      runUserCode("completion", [&] { completed->completion(std::move(completed->result)); });
    } else {
      greeted(std::get<Greeted>(event).resumeToken);
    }
  }
}

void Channel::dispatch(Frame frame) {
  std::shared_ptr<ExportedObject> object;
  std::shared_ptr<const InterfaceDescription> interface;
  bool closed = false;
  {
    const std::lock_guard state(mutex_);
    --deliveriesQueued_;
    object = exportedObject_;
    interface = exportedInterface_;
    closed = tornDown_;
  }
  const bool isCall = frame.kind == FrameKind::call;
  auto refused = object ? refusal(interface.get(), frame) : "no exported object for " + frame.name;
  if (refused && isCall) {
    answer(frame.serial, std::nullopt, *refused);
    return;
  }
  if (refused && closed) {
    // Arrived just before the connection closed (say, as the process ends): nothing is wrong.
    LogCategory::tether().debug("Dropped message {} that arrived as the connection closed",
                                frame.name);
  } else if (refused) {
    LogCategory::tether().error("Dropped message {}: {}", frame.name, *refused);
  } else {
    Reply reply = isCall ? Reply(weak_from_this(), frame.serial) : Reply();
    runUserCode("exported object",
                [&] { object->handle(frame.name, std::move(frame.payload), std::move(reply)); });
  }
  if (!isCall) {
    const std::lock_guard state(mutex_);
    session_.messageHandled();
    afterSessionLocked();
  }
}

void Channel::greeted(const std::string& resumeToken) {
  std::function<void(const std::string&)> handler;
  {
    const std::lock_guard state(mutex_);
    handler = greetingHandler_;
  }
  if (handler) runUserCode("greeting handler", [&] { handler(resumeToken); });
}

// ---- closing ---------------------------------------------------------------------------------

void Channel::close(CloseReason reason, const std::string& detail) noexcept {
  try {
    const std::lock_guard state(mutex_);
    session_.close(reason, detail);
    afterSessionLocked();
  } catch (const std::exception& e) {
    LogCategory::tether().fault("Could not close a connection: {}", e.what());
  }
}

void Channel::teardownLocked() {
  tornDown_ = true;
  open_.store(false, std::memory_order_release);
  // Wakes a synchronous caller that waits in recv(); the descriptor stays open until the channel
  // is destroyed.
  ::shutdown(fd_, SHUT_RDWR);
  if (started_) {
    runtime_->unwatch(fd_, readKey_);
    runtime_->unwatch(writeFd_, writeKey_);
  }
  // Behind the failures the close posted: dropping the object breaks cycles through proxies it
  // may hold, then the close handler and the owner hear of it.
  boost::asio::post(delivery_, [self = shared_from_this(), object = std::move(exportedObject_),
                                handler = std::move(closeHandler_), reason = session_.closeReason(),
                                detail = session_.closeDetail()]() mutable {
    object.reset();
    if (handler) runUserCode("close handler", handler);
    if (auto owner = self->owner_.lock()) owner->channelClosed(self, reason, detail);
  });
}

// ---- configuration ---------------------------------------------------------------------------

void Channel::setExportedInterface(std::optional<InterfaceDescription> interface) {
  auto shared =
      interface ? std::make_shared<const InterfaceDescription>(std::move(*interface)) : nullptr;
  const std::lock_guard state(mutex_);
  exportedInterface_ = std::move(shared);
}

void Channel::setExportedObject(std::shared_ptr<ExportedObject> object) {
  const std::lock_guard state(mutex_);
  if (!tornDown_) exportedObject_ = std::move(object);
}

void Channel::setRemoteInterface(std::optional<InterfaceDescription> interface) {
  auto shared =
      interface ? std::make_shared<const InterfaceDescription>(std::move(*interface)) : nullptr;
  const std::lock_guard state(mutex_);
  remoteInterface_ = std::move(shared);
}

std::shared_ptr<const InterfaceDescription> Channel::remoteInterface() const {
  const std::lock_guard state(mutex_);
  return remoteInterface_;
}

void Channel::setGreetingHandler(std::function<void(const std::string&)> handler) {
  const std::lock_guard state(mutex_);
  greetingHandler_ = std::move(handler);
}

void Channel::setCloseHandler(std::function<void()> handler) {
  {
    const std::lock_guard state(mutex_);
    if (!tornDown_) {
      closeHandler_ = std::move(handler);
      return;
    }
  }
  // Closed already: the handler still runs once.
  if (handler) {
    boost::asio::post(delivery_,
                      [handler = std::move(handler)] { runUserCode("close handler", handler); });
  }
}

}  // namespace corvane::ipc::detail
