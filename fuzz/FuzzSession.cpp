// Drives a protocol session with arbitrary bytes from its peer, interleaved with its own calls,
// answers and writes, and checks what must hold for any input: every call of ours completes
// exactly once, nothing completes after the close except through it, the session never holds
// more than its limits allow, and a closed session asks for nothing.

#include "ipc/detail/Session.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <span>
#include <vector>

using namespace corvane::ipc;
using namespace corvane::ipc::detail;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const Role role = (data[0] & 1U) != 0 ? Role::service : Role::client;
  const SessionLimits limits{1U + (data[0] >> 5U), 4096, 8192};
  auto budget = std::make_shared<ReceiveBudget>(256U * 1024U);
  std::map<int, int> completions;  // call number -> times completed
  int calls = 0;
  {
    Session session(role, limits, budget);
    std::vector<SessionEvent> events;
    std::vector<std::uint64_t> toAnswer;
    std::size_t offset = 1;
    while (offset < size) {
      const std::uint8_t op = data[offset++];
      const std::size_t chunk = std::min<std::size_t>(size - offset, 1U + (op >> 3U) * 4U);
      switch (op & 7U) {
        case 0:
        case 1:
        case 2: {  // bytes from the peer
          auto room = session.receiveBuffer(chunk);
          std::copy_n(reinterpret_cast<const std::byte*>(data + offset), chunk, room.begin());
          session.received(chunk);
          offset += chunk;
          break;
        }
        case 3: {  // a call of ours
          const int number = calls++;
          completions[number] = 0;
          session.call("fuzz:reply:", corvane::Bytes(std::string_view("[1]")),
                       [&completions, number](CallResult) { ++completions[number]; });
          break;
        }
        case 4: {  // the peer reads some of what we wrote
          std::array<std::span<const std::byte>, 8> parts;
          const std::size_t filled = session.gatherOutput(parts);
          std::size_t total = 0;
          for (std::size_t i = 0; i < filled; ++i) total += parts[i].size();
          session.wrote(std::min(total, chunk * 64));
          break;
        }
        case 5:
          if (!toAnswer.empty()) {
            session.answer(toAnswer.back(), corvane::Bytes(std::string_view("[]")), {});
            toAnswer.pop_back();
          }
          break;
        case 6:
          session.messageHandled();
          break;
        default:
          session.receivedEnd();
          break;
      }
      session.takeEvents(events);
      for (auto& event : events) {
        if (auto* frame = std::get_if<Frame>(&event)) {
          if (frame->kind == FrameKind::call) toAnswer.push_back(frame->serial);
        } else {
          auto& completed = std::get<Completed>(event);
          completed.completion(std::move(completed.result));
        }
      }
      events.clear();
      if (session.closed() && (session.pendingOutput() != 0 || session.wantsInput())) std::abort();
      if (budget->left() > 256U * 1024U) std::abort();
    }
    session.close(CloseReason::invalidated, "done");
    session.takeEvents(events);
    for (auto& event : events) {
      if (auto* completed = std::get_if<Completed>(&event))
        completed->completion(std::move(completed->result));
    }
  }
  for (const auto& [number, times] : completions)
    if (times != 1) std::abort();                    // exactly once, on every path
  if (budget->left() != 256U * 1024U) std::abort();  // every byte given back
  return 0;
}
