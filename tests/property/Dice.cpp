#include "property/Dice.h"

namespace property {

std::size_t Dice::weighted(const std::vector<unsigned>& weights) {
  std::uint64_t sum = 0;
  for (const unsigned weight : weights) sum += weight;
  std::uint64_t rolled = below(sum);
  std::size_t index = 0;
  while (rolled >= weights[index]) rolled -= weights[index++];
  return index;
}

std::string Dice::text(std::size_t limit) {
  std::string bytes(below(limit), '\0');
  const bool isReadable = inPercent(60);
  for (char& byte : bytes) {
    byte = static_cast<char>(isReadable ? 'a' + below(26) : any());
  }
  return bytes;
}

std::uint32_t edgyLength(Dice& dice, std::uint64_t room, std::uint64_t wholeRoom) {
  const std::uint64_t jitter = dice.below(3) - 1;  // wraps on purpose, as the sums below do
  const std::uint64_t length =
      dice.of({0, 1, dice.below(64), dice.below(64), room - 48 + jitter, room - 48 + jitter,
               room / 2, wholeRoom - 48 + jitter, wholeRoom, 131072 + jitter,
               0xffffffff - dice.below(60), std::uint64_t{1} << 31});
  return static_cast<std::uint32_t>(length);
}

void rollHeader(Dice& dice, Operation& operation, std::uint32_t length) {
  operation.set("len", length)
      .set("type", dice.of({0, 1, 2, 2, 3, 4, dice.any() & 0xffffffff}))
      .set("state", dice.of({0, 0, 1, 1, 2, dice.any() & 0xffffffff}));
  if (dice.inPercent(30)) {
    operation.set("sequence", dice.any())
        .set("count", dice.any())
        .set("empty", dice.below(3))
        .set("p1", dice.any() & 0xffffffff)
        .set("p2", dice.any() & 0xffffffff)
        .set("p3", dice.any() & 0xffffffff);
  }
  if (dice.inPercent(8)) operation.set("magic", dice.of({0, 0xddccbbaa, dice.below(1000)}));
}

}  // namespace property
