// Damage: one byte becomes another one, whatever it was. What files hold is random in part, so that writing a certain
// byte over it may change nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ios>
#include <stdexcept>

namespace zontest {

// Of a string or a vector of bytes.
template <class Bytes>
void spoilByte(Bytes& bytes, std::size_t at) {
  auto& byte = bytes.at(at);
  byte = static_cast<typename Bytes::value_type>(static_cast<unsigned char>(byte) ^ 0x55U);
}

inline void spoilByteOfFile(const std::filesystem::path& path, std::uint64_t at) {
  const auto offset = static_cast<std::streamoff>(at);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(offset);
  const int byte = file.get();
  file.seekp(offset);
  file.put(static_cast<char>(byte ^ 0x55));
  if (!file.flush()) throw std::runtime_error("no such byte to spoil in " + path.string());
}

}  // namespace zontest
