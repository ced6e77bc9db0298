// Feeds arbitrary bytes to the reply decoders: a result holding a list of strings, and a record
// with optional, list, raw-value and case-keyed (recursive) fields. Decoding may fail only with
// CodingError; anything that decodes must encode again and decode to the same value. Decoding
// straight from the text must give the value decoding through a tree of values gives, and take
// nothing the tree rejects.

#include "support/SampleRecords.hpp"

#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>

#include <cstdlib>
#include <span>

namespace {

template <class T>
void roundTrip(std::span<const std::byte> input) {
  const auto direct = corvane::coding::detail::decodeDirectly<T>(input);
  try {
    auto [value] = corvane::coding::detail::decodeFromTree<T>(input);
    if (direct && !(std::get<0>(*direct) == value)) std::abort();
    const corvane::Bytes again = corvane::TetherEncoder::encode(value);
    auto [decodedAgain] = corvane::TetherDecoder<T>::decode(again);
    if (!(decodedAgain == value)) std::abort();
  } catch (const corvane::CodingError&) {
    // Rejected with a described error: the expected outcome for most inputs.
    if (direct) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::byte> input(reinterpret_cast<const std::byte*>(data), size);
  roundTrip<corvane::ServiceResult<std::vector<std::string>>>(input);
  roundTrip<corvane::ServiceResult<corvane::None>>(input);
  roundTrip<corvane::testing::Sample>(input);
  return 0;
}
