#pragma once

#include "EventLoop.hpp"

#include <boost/asio/bind_executor.hpp>

#include <functional>
#include <utility>

namespace cvnctl {

/// Takes every value of `stream` (an `AsyncStream` or the catalogue's `ManagedApps`) on the
/// loop's thread and hands it to `onValue`, until the loop finishes. A stream that ends while the
/// loop still runs calls `onEnd`. The loop's finish ends the stream. `stream` must outlive the
/// loop's run.
template <class Stream, class Value>
class StreamFollower {
 public:
  StreamFollower(EventLoop& loop, Stream& stream, std::function<void(Value)> onValue,
                 std::function<void()> onEnd)
      : loop_(loop), stream_(stream), onValue_(std::move(onValue)), onEnd_(std::move(onEnd)) {
    loop_.onFinish([&stream] { stream.cancel(); });
  }

  /// Asks for the first value; the following ones are asked for as each arrives.
  void start() { next(); }

 private:
  void next() {
    stream_.next(boost::asio::bind_executor(loop_.context(), [this](auto error, auto value) {
      if (loop_.finished()) return;
      // No wait here is cancelled or overlaps another, so an error is as final as the end.
      if (error || !value) {
        onEnd_();
        return;
      }
      onValue_(std::move(*value));
      if (!loop_.finished()) next();
    }));
  }

  EventLoop& loop_;
  Stream& stream_;
  std::function<void(Value)> onValue_;
  std::function<void()> onEnd_;
};

}  // namespace cvnctl
