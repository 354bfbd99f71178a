/// \file pictures.h
/// Pictures for tests, made by the image tool from a plain one, and a stand-in for the tool
/// that records how it was called.
#ifndef ZEM_TESTS_UNIT_APPEARANCE_PICTURES_H
#define ZEM_TESTS_UNIT_APPEARANCE_PICTURES_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/syslog.h"

namespace pictures {

inline void Shell(const std::string& line) { EXPECT_EQ(std::system(line.c_str()), 0) << line; }

inline void Write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string Read(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline bool Exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

inline std::string Bytes(unsigned long value, int size) {
  std::string bytes;
  for (int i = 0; i < size; i++)
    bytes += static_cast<char>(value >> (8 * i) & 0xff);
  return bytes;
}

/// A BMP file of 24 bits a pixel, of noise, which nothing compresses well. The width is a
/// multiple of four.
inline std::string Bitmap(int width, int height) {
  std::mt19937 random(7);
  const size_t size = static_cast<size_t>(width) * static_cast<size_t>(height) * 3;
  std::string pixels(size, '\0');
  for (char& byte : pixels)
    byte = static_cast<char>(random());
  return "BM" + Bytes(54 + size, 4) + Bytes(0, 4) + Bytes(54, 4) + Bytes(40, 4) +
         Bytes(static_cast<unsigned long>(width), 4) +
         Bytes(static_cast<unsigned long>(height), 4) + Bytes(1, 2) + Bytes(24, 2) + Bytes(0, 4) +
         Bytes(size, 4) + Bytes(2835, 4) + Bytes(2835, 4) + Bytes(0, 8) + pixels;
}

/// Makes a picture of another: options of the image tool, then the file.
inline void Convert(const std::string& arguments) { Shell("/usr/bin/convert " + arguments); }

/// The tool's description of a picture: "JPEG 160x107".
inline std::string Describe(const std::string& path) {
  Shell("/usr/bin/convert '" + path + "[0]' info: > /run/description");
  std::smatch found;
  const std::string text = Read("/run/description");
  return std::regex_search(text, found, std::regex(" ([A-Z]+) ([0-9]+x[0-9]+) "))
             ? found.str(1) + " " + found.str(2)
             : text;
}

/// Puts a script in the place of a program.
inline void Replace(const std::string& program, const std::string& script) {
  std::filesystem::remove(program);
  Write(program, "#!/bin/sh\n" + script);
  EXPECT_EQ(chmod(program.c_str(), 0755), 0);
}

/// A script that notes its arguments, one call a line.
inline const char* const kNote = "echo \"$0 $*\" >>/run/calls\n";

/// A list of texts to compare with.
template <typename... Text>
std::vector<std::string> Texts(const Text&... texts) {
  return {texts...};
}

/// Log lines with their line numbers as "N".
inline std::vector<std::string> Messages(support::Syslog& log) {
  std::vector<std::string> messages;
  for (const std::string& text : log.TakeTexts())
    messages.push_back(std::regex_replace(text, std::regex(":[0-9]+ "), ":N "));
  return messages;
}

}  // namespace pictures

#endif  // ZEM_TESTS_UNIT_APPEARANCE_PICTURES_H
