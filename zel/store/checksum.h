// A checksum of 64 bits for what lies on a disk: it notices every change of a single word, and any
// other but for one in 2 to the 64th. Not for what somebody might forge.
//
//   std::uint64_t sum = checksum(checksum(0, fields), bytes);
//
// Part of the file's format: it never changes.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace zel {

// One to one: different values stay different.
constexpr std::uint64_t scattered(std::uint64_t value) {
  value = (value ^ value >> 33) * 0xFF51AFD7ED558CCDU;
  value = (value ^ value >> 33) * 0xC4CEB9FE1A85EC53U;
  return value ^ value >> 33;
}

// Four sums of every fourth word, each step of them one to one.
inline std::uint64_t checksum(std::uint64_t seed, std::string_view bytes) {
  constexpr std::size_t step = 16;
  constexpr std::uint32_t factor = 0x9E3779B1U;
  std::array<std::uint32_t, 4> sums{0x243F6A88U, 0x85A308D3U, 0x13198A2EU, 0x03707344U};
  const auto take = [&sums](const char* from) {
    std::array<std::uint32_t, 4> words;
    std::memcpy(words.data(), from, step);
    for (std::size_t i = 0; i < 4; ++i) sums[i] = std::rotl((sums[i] ^ words[i]) * factor, 15);
  };
  const std::uint64_t size = bytes.size();
  for (; bytes.size() >= step; bytes.remove_prefix(step)) take(bytes.data());
  if (!bytes.empty()) {
    std::array<char, step> rest{};
    std::memcpy(rest.data(), bytes.data(), bytes.size());
    take(rest.data());
  }
  const auto both = [&sums](std::size_t i) {
    return sums[i] | static_cast<std::uint64_t>(sums[i + 1]) << 32;
  };
  return scattered(scattered(scattered(seed + size) ^ both(0)) ^ both(2));
}

inline std::uint64_t checksum(std::uint64_t seed, std::span<const std::uint64_t> numbers) {
  return checksum(seed, {reinterpret_cast<const char*>(numbers.data()), numbers.size_bytes()});
}

}  // namespace zel
