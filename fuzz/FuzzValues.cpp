// Feeds arbitrary bytes to the decoders of what crosses the connection most: a pushed message
// batch and the add-or-update request with its whole declaration. Decoding may fail only with a
// CodingError; anything that decodes must encode, and that document must decode and encode to
// the very same bytes. Decoding straight from the text must give the value decoding through a
// tree of values gives (compared by encoding), and take nothing the tree rejects.

#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>
#include <corvane/push/TetherClientMessage.hpp>
#include <corvane/requests/DDMAppOrUpdateManagedAppRequest.hpp>

#include <cstdlib>
#include <span>

namespace {

template <class T>
void roundTrip(std::span<const std::byte> input) {
  const auto direct = corvane::coding::detail::decodeDirectly<T>(input);
  try {
    auto [value] = corvane::coding::detail::decodeFromTree<T>(input);
    const corvane::Bytes first = corvane::TetherEncoder::encode(value);
    if (direct && !(corvane::TetherEncoder::encode(std::get<0>(*direct)) == first)) std::abort();
    auto [again] = corvane::TetherDecoder<T>::decode(first);
    const corvane::Bytes second = corvane::TetherEncoder::encode(again);
    if (!(first == second)) std::abort();
  } catch (const corvane::CodingError&) {
    // Rejected with a described error: the expected outcome for most inputs.
    if (direct) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::byte> input(reinterpret_cast<const std::byte*>(data), size);
  roundTrip<std::vector<corvane::TetherClientMessage>>(input);
  roundTrip<corvane::DDMAppOrUpdateManagedAppRequest>(input);
  return 0;
}
