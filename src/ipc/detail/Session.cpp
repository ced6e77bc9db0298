#include "ipc/detail/Session.hpp"

#include <boost/json/parse.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace corvane::ipc::detail {

namespace {

/// What a connection may buffer of a partly received frame without drawing on the shared budget:
/// ordinary calls fit in it, and a thousand idle clients holding it are still little.
constexpr std::size_t freeReceiveAllowance = std::size_t{16} * 1024;
/// Payloads up to this size are copied behind the frames before them (see queueFrame).
constexpr std::size_t coalescedPayloadLimit = std::size_t{16} * 1024;
/// A written buffer at most this large is kept for the next frames.
constexpr std::size_t keptOutputBuffer = std::size_t{16} * 1024;
/// A buffer of copied frames takes no more once it holds this much.
constexpr std::size_t coalescedChunkLimit = std::size_t{256} * 1024;

}  // namespace

bool ReceiveBudget::take(std::size_t bytes) noexcept {
  std::size_t left = left_.load(std::memory_order_relaxed);
  do {
    if (left < bytes) return false;
  } while (!left_.compare_exchange_weak(left, left - bytes, std::memory_order_relaxed));
  return true;
}

bool isSupportedHello(const std::optional<Bytes>& payload) noexcept {
  if (!payload) return false;
  boost::system::error_code error;
  const auto document = boost::json::parse(payload->view(), error);
  if (error || !document.is_object()) return false;
  const auto* version = document.as_object().if_contains("protocol");
  return version != nullptr && version->is_int64() && version->as_int64() == protocolVersion;
}

std::optional<std::string> refusal(const InterfaceDescription* interface, const Frame& frame) {
  if (interface == nullptr) return std::nullopt;
  const auto shape = interface->shape(frame.name);
  if (!shape) return "unknown operation " + frame.name;
  const bool fits = frame.kind == FrameKind::call
                        ? (*shape == OperationShape::argumentAndReply && frame.payload)
                              || (*shape == OperationShape::replyOnly && !frame.payload)
                        : *shape == OperationShape::oneWay && frame.payload.has_value();
  if (fits) return std::nullopt;
  return fmt::format("shape mismatch for {} ({})", frame.name, toString(*shape));
}

CallError Session::closeError(CloseReason reason, const std::string& detail) {
  switch (reason) {
    case CloseReason::peerLost:
      return {ConnectionError::interrupted, detail};
    case CloseReason::protocolViolation:
      return {ConnectionError::protocolViolation, detail};
    case CloseReason::limitExceeded:
      return {ConnectionError::limitExceeded, detail};
    case CloseReason::helloMismatch:
    case CloseReason::invalidated:
      break;
  }
  return {ConnectionError::invalidated, detail};
}

Session::Session(Role role, SessionLimits limits, std::shared_ptr<ReceiveBudget> budget,
                 std::string_view resumeToken)
    : role_(role), limits_(limits), budget_(std::move(budget)), outputHeld_(role == Role::service) {
  // A client speaks first; whatever its callers queue goes out behind the HELLO.
  if (role_ == Role::client)
    queueFrame(FrameKind::hello, 0, {}, Bytes(std::string_view(helloPayloadWith(resumeToken))));
}

Session::~Session() {
  if (budget_) budget_->give(charged_);
}

// ---- our side --------------------------------------------------------------------------------

std::optional<std::uint64_t> Session::call(std::string_view operation,
                                           std::optional<Bytes> argument, Completion completion,
                                           bool synchronous) {
  if (closed_) {
    if (completion) {
      events_.emplace_back(Completed{
          std::move(completion), CallResult(closeError(closeReason_, closeDetail_)), synchronous});
    }
    return std::nullopt;
  }
  if (inputEnded_ && completion) {
    // The peer has ended its stream: nothing could answer this call.
    events_.emplace_back(Completed{
        std::move(completion),
        CallResult(CallError(ConnectionError::interrupted, "the peer hung up")), synchronous});
    return std::nullopt;
  }
  const std::uint64_t serial = nextSerial_++;
  if (completion) {
    pending_.emplace(serial, Pending{std::move(completion), synchronous});
    queueFrame(FrameKind::call, serial, operation, std::move(argument));
  } else {
    queueFrame(FrameKind::message, serial, operation, std::move(argument));
  }
  // Going past the outgoing limit closed the session instead: nothing was queued.
  if (closed_) return std::nullopt;
  return serial;
}

void Session::answer(std::uint64_t serial, std::optional<Bytes> reply, std::string_view reason) {
  if (unanswered_.erase(serial) == 0) return;
  --inFlight_;
  if (!closed_) {
    if (reply) {
      queueFrame(FrameKind::reply, serial, {}, std::move(reply));
    } else {
      queueFrame(FrameKind::fault, serial, {}, Bytes(reason));
    }
  }
  releaseQueued();
  closeIfDrained();
}

void Session::messageHandled() {
  if (inFlight_ > unanswered_.size()) --inFlight_;
  releaseQueued();
  closeIfDrained();
}

void Session::close(CloseReason reason, std::string detail) {
  if (closed_) return;
  closed_ = true;
  closeReason_ = reason;
  closeDetail_ = std::move(detail);
  output_.clear();
  outputOffset_ = 0;
  outputBytes_ = 0;
  queued_.clear();
  queuedBytes_ = 0;
  // Nothing more is read or written: the buffers go back now, not when the owner lets go.
  decoder_.release();
  spare_ = {};
  releaseBudget();
  failPending(closeError(reason, closeDetail_));
}

void Session::failPending(const CallError& error) {
  // In serial order, the order the calls were made.
  std::vector<std::pair<std::uint64_t, Pending>> failed(std::make_move_iterator(pending_.begin()),
                                                        std::make_move_iterator(pending_.end()));
  pending_.clear();
  std::sort(failed.begin(), failed.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& [serial, call] : failed) {
    events_.emplace_back(
        Completed{std::move(call.completion), CallResult(error), call.synchronous});
  }
}

// ---- bytes to write --------------------------------------------------------------------------

void Session::queueFrame(FrameKind kind, std::uint64_t serial, std::string_view name,
                         std::optional<Bytes> payload) {
  encodeFrameHeader(header_, kind, serial, name, payload.has_value(),
                    payload ? payload->size() : 0);
  const std::size_t payloadBytes = payload ? payload->size() : 0;
  // One frame always fits, however large; behind others it must fit within the limit.
  const std::size_t frameBytes = header_.size() + payloadBytes;
  const std::size_t limit = limits_.maxQueuedOutgoingBytes;
  if (outputBytes_ > 0 && (frameBytes > limit || outputBytes_ > limit - frameBytes)) {
    close(CloseReason::limitExceeded,
          fmt::format("the peer does not read: {} bytes wait for it, {} more would go past {}",
                      outputBytes_, frameBytes, limit));
    return;
  }
  outputBytes_ += frameBytes;
  const auto body = payload ? payload->span() : std::span<const std::byte>{};
  if (kind == FrameKind::hello && outputHeld_) {
    // A service answers the HELLO ahead of whatever it queued meanwhile.
    std::vector<std::byte> hello(header_);
    hello.insert(hello.end(), body.begin(), body.end());
    output_.push_front(std::move(hello));
    return;
  }
  // Small frames are copied one behind the other into one buffer, so that a batch of them is a
  // few buffers to write, not two per frame; a large payload is moved in as a buffer of its own.
  const bool small = payloadBytes <= coalescedPayloadLimit;
  if (output_.empty() || lastSealed_ || output_.back().size() >= coalescedChunkLimit) {
    output_.push_back(std::move(spare_));
    spare_.clear();
    output_.back().clear();
    lastSealed_ = false;
  }
  auto& last = output_.back();
  last.insert(last.end(), header_.begin(), header_.end());
  if (small) {
    last.insert(last.end(), body.begin(), body.end());
  } else {
    output_.push_back(std::move(*payload).release());
    lastSealed_ = true;
  }
}

std::size_t Session::pendingOutput() const noexcept {
  return outputHeld_ ? 0 : outputBytes_;
}

std::size_t Session::gatherOutput(std::span<std::span<const std::byte>> parts) const noexcept {
  if (outputHeld_) return 0;
  std::size_t filled = 0;
  for (auto buffer = output_.begin(); buffer != output_.end() && filled < parts.size();
       ++buffer, ++filled) {
    parts[filled] = std::span<const std::byte>(*buffer).subspan(filled == 0 ? outputOffset_ : 0);
  }
  return filled;
}

void Session::wrote(std::size_t bytes) {
  outputBytes_ -= std::min(bytes, outputBytes_);
  while (bytes > 0 && !output_.empty()) {
    const std::size_t left = output_.front().size() - outputOffset_;
    if (bytes < left) {
      outputOffset_ += bytes;
      break;
    }
    bytes -= left;
    // A small written buffer is kept for the next frames; a larger one goes back, so that an
    // idle client holds little.
    if (output_.front().capacity() <= keptOutputBuffer) spare_ = std::move(output_.front());
    output_.pop_front();
    outputOffset_ = 0;
  }
  closeIfDrained();
}

// ---- bytes read ------------------------------------------------------------------------------

std::span<std::byte> Session::receiveBuffer(std::size_t size) {
  return decoder_.prepare(size);
}

std::span<std::byte> Session::frameRoom(std::size_t least) {
  const std::size_t missing = decoder_.missingBytes();
  if (missing < least || !wantsInput()) return {};
  return decoder_.prepare(std::min(missing, std::max(least, decoder_.bufferedBytes() / 4)));
}

void Session::received(std::size_t bytes) {
  if (!wantsInput()) {
    // Read after the close (a synchronous caller's last recv): nobody takes these bytes.
    decoder_.release();
    return;
  }
  decoder_.commit(bytes);
  Frame frame;
  while (!closed_ && !inputEnded_) {
    const auto status = decoder_.next(frame);
    if (status == FrameDecoder::Status::needMore) break;
    if (status == FrameDecoder::Status::violation) {
      violation(decoder_.violation());
      break;
    }
    handleFrame(frame);
  }
  chargeBudget();
}

void Session::receivedEnd() {
  if (closed_ || inputEnded_) return;
  if (role_ == Role::client || !helloDone_) {
    close(CloseReason::peerLost,
          decoder_.bufferedBytes() > 0 ? "the peer hung up inside a frame" : "the peer hung up");
    return;
  }
  // A client that shut down its writing still gets the answers to the calls it sent; the calls
  // we made to it can no longer be answered.
  inputEnded_ = true;
  decoder_.release();  // a frame cut short by the end will never complete
  releaseBudget();
  failPending(CallError(ConnectionError::interrupted, "the peer hung up"));
  closeIfDrained();
}

void Session::chargeBudget() {
  if (!budget_) return;
  const std::size_t buffered = closed_ || inputEnded_ ? 0 : decoder_.bufferedBytes();
  const std::size_t wanted = buffered > freeReceiveAllowance ? buffered - freeReceiveAllowance : 0;
  if (wanted < charged_) {
    budget_->give(charged_ - wanted);
    charged_ = wanted;
  } else if (wanted > charged_) {
    if (!budget_->take(wanted - charged_)) {
      close(CloseReason::limitExceeded,
            "too many bytes of partly received frames across the service's connections");
      return;
    }
    charged_ = wanted;
  }
}

void Session::releaseBudget() noexcept {
  if (budget_ && charged_ > 0) budget_->give(charged_);
  charged_ = 0;
}

void Session::violation(std::string detail) {
  close(CloseReason::protocolViolation, std::move(detail));
}

void Session::handleFrame(Frame& frame) {
  if (!helloDone_) {
    handleHello(frame);
    return;
  }
  switch (frame.kind) {
    case FrameKind::hello:
      violation("a second HELLO");
      return;
    case FrameKind::reply:
      complete(frame.serial, CallResult(std::move(frame.payload).value_or(Bytes())));
      return;
    case FrameKind::fault: {
      std::string reason(frame.payload ? frame.payload->view() : std::string_view("fault"));
      complete(frame.serial, CallResult(CallError(ConnectionError::peerFault, std::move(reason))));
      return;
    }
    case FrameKind::call:
    case FrameKind::message:
      incoming(frame);
      return;
  }
}

void Session::handleHello(Frame& frame) {
  if (frame.kind == FrameKind::hello && frame.serial == 0) {
    if (!isSupportedHello(frame.payload)) {
      if (role_ == Role::service) {
        // The FAULT is all this side writes; the session ends once it is out.
        output_.clear();
        outputOffset_ = 0;
        outputBytes_ = 0;
        outputHeld_ = false;
        queueFrame(FrameKind::fault, 0, {},
                   Bytes(std::string_view("unsupported protocol version")));
        inputEnded_ = true;
        closeReason_ = CloseReason::helloMismatch;
        closeDetail_ = "the peer does not speak protocol version 1";
        closeIfDrained();
        return;
      }
      close(CloseReason::helloMismatch, "the peer does not speak protocol version 1");
      return;
    }
    helloDone_ = true;
    if (role_ == Role::service) {
      queueFrame(FrameKind::hello, 0, {}, Bytes(helloPayload));
      outputHeld_ = false;
      if (auto token = resumeTokenOf(frame.payload->view()); !token.empty())
        events_.emplace_back(Greeted{std::move(token)});
    }
    return;
  }
  if (role_ == Role::client && frame.kind == FrameKind::fault && frame.serial == 0) {
    close(CloseReason::helloMismatch,
          std::string(frame.payload ? frame.payload->view() : "the service refused the HELLO"));
    return;
  }
  violation("the first frame is not a HELLO");
}

void Session::complete(std::uint64_t serial, CallResult result) {
  auto found = pending_.find(serial);
  if (found == pending_.end()) {
    // Nothing of ours waits for it: the peer answers a call it never got.
    violation(fmt::format("an answer to unknown serial {}", serial));
    return;
  }
  events_.emplace_back(
      Completed{std::move(found->second.completion), std::move(result), found->second.synchronous});
  pending_.erase(found);
}

void Session::incoming(Frame& frame) {
  if (frame.serial <= lastIncomingSerial_) {
    violation("serials must increase");
    return;
  }
  lastIncomingSerial_ = frame.serial;
  if (queued_.empty() && inFlight_ < limits_.maxCallsInFlight) {
    ++inFlight_;
    if (frame.kind == FrameKind::call) unanswered_.insert(frame.serial);
    events_.emplace_back(std::move(frame));
  } else {
    // Held back in order behind the limit; replies keep being read meanwhile.
    queuedBytes_ += frame.payload ? frame.payload->size() : 0;
    queuedBytes_ += frame.name.size();
    queued_.push_back(std::move(frame));
    if (queuedBytes_ > limits_.maxQueuedIncomingBytes) {
      close(CloseReason::limitExceeded,
            fmt::format("the peer sent {} bytes of calls beyond the {} it may have in flight",
                        queuedBytes_, limits_.maxCallsInFlight));
    }
  }
  frame = Frame{};
}

void Session::releaseQueued() {
  while (!closed_ && !queued_.empty() && inFlight_ < limits_.maxCallsInFlight) {
    Frame& next = queued_.front();
    queuedBytes_ -= (next.payload ? next.payload->size() : 0) + next.name.size();
    ++inFlight_;
    if (next.kind == FrameKind::call) unanswered_.insert(next.serial);
    events_.emplace_back(std::move(next));
    queued_.pop_front();
  }
}

void Session::closeIfDrained() {
  if (closed_ || !inputEnded_ || outputBytes_ > 0 || inFlight_ > 0 || !queued_.empty()) return;
  if (closeReason_ == CloseReason::helloMismatch) {
    close(CloseReason::helloMismatch, closeDetail_);
  } else {
    close(CloseReason::peerLost, "the peer hung up");
  }
}

// ---- events ----------------------------------------------------------------------------------

void Session::takeEvents(std::vector<SessionEvent>& out) {
  if (out.empty()) {
    out.swap(events_);
    return;
  }
  std::move(events_.begin(), events_.end(), std::back_inserter(out));
  events_.clear();
}

}  // namespace corvane::ipc::detail
