// Ways in which a file of a store can be wrong. What reads a store tells of each, and neither crashes nor hangs.
#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace lumbra::test {

namespace fs = std::filesystem;

struct Damage {
  std::string Name;
  std::function<void(const fs::path& File)> Do;
};

inline void Overwrite(const fs::path& File, std::uint64_t nOffset, const std::string& Bytes) {
  std::fstream Out(File, std::ios::binary | std::ios::in | std::ios::out);
  Out.seekp(static_cast<std::streamoff>(nOffset));
  Out << Bytes;
}

// To any file with a header.
inline std::vector<Damage> DamagesOfAnyFile() {
  const auto Replace = [](const std::string& Bytes) {
    return [=](const fs::path& File) {
      std::ofstream(File, std::ios::binary | std::ios::trunc) << Bytes;
    };
  };
  const auto Cut = [](std::uint64_t nOf) {
    return [=](const fs::path& File) {
      fs::resize_file(File, fs::file_size(File) / nOf);
    };
  };
  std::vector<Damage> All = {
      {"empty", Replace("")},
      {"a byte", Replace("O")},
      {"foreign", Replace(std::string(5000, 'x'))},
      {"zeros", Replace(std::string(5000, '\0'))},
      {"no bit is clear", Replace(std::string(5000, '\xFF'))},
      {"cut in its header",
       [](const fs::path& File) {
         fs::resize_file(File, 3);
       }},
      {"cut in half", Cut(2)},
      {"a flipped magic",
       [](const fs::path& File) {
         Overwrite(File, 0, "\xFF");
       }},
      {"huge lengths",
       [](const fs::path& File) {
         Overwrite(File, 4, std::string(8, '\xFE'));
       }},
      {"missing",
       [](const fs::path& File) {
         fs::remove(File);
       }},
      {"a folder",
       [](const fs::path& File) {
         fs::remove(File);
         fs::create_directory(File);
       }},
  };
#ifndef _WIN32
  All.push_back({"a pipe", [](const fs::path& File) {
                   fs::remove(File);
                   (void)mkfifo(File.c_str(), 0600);  // missing where it fails
                 }});
  All.push_back({"a device", [](const fs::path& File) {
                   fs::remove(File);
                   fs::create_symlink("/dev/zero", File);
                 }});
#endif
  return All;
}

// To one kind of files, by the end of their names.
struct KindOfDamage {
  std::string File;
  Damage Of;
};
inline std::vector<KindOfDamage> DamagesOfKinds() {
  const auto Put = [](std::uint64_t nOffset, const std::string& Bytes) {
    return [=](const fs::path& File) {
      Overwrite(File, nOffset, Bytes);
    };
  };
  const auto Grow = [](const fs::path& File) {
    fs::resize_file(File, std::uint64_t{64} << 20);
  };
  using namespace std::string_literals;
  return {
      {"objid.dat", {"its own parent", Put(12 + 8, "\1\0\0\0\1\0\0\0"s)}},
      {"objid.dat", {"a parent behind the end", Put(12 + 8, "\xF0\xFF\xFF\x7F\1\0\0\0"s)}},
      {"objid.dat", {"a name behind the end", Put(12 + 16, "\xFF\xFF\xFF\xFF\xFF\xFF"s)}},
      {"objid.dat", {"a name over the magic", Put(12 + 16, "\0\0\0\0"s)}},
      {"objid.dat", {"a table without end", Put(12 + 24, "\4\0\0\0\xFF"s)}},
      {"objid.dat", {"sparse", Grow}},
      {"objbt.dat",
       {"every slot leads to the root", Put(16,
                                            [] {
                                              std::string Slots;
                                              for (int i = 0; i < 256; ++i) Slots += "\x10\0\0\x80"s;
                                              return Slots;
                                            }())}},
      {"objbt.dat", {"a node behind the end", Put(16, "\xF0\xFF\xFF\xFF"s)}},
      {"objbt.dat", {"an object that is not there", Put(16, "\xF0\xFF\xFF\x7F"s)}},
      {"events.dat", {"events of another size", Put(8, "\x11\0\0\0"s)}},
      {"events.dat", {"events of no size", Put(8, "\0\0\0\0"s)}},
      {"segments.dat", {"a segment that is not there", Put(4, "\7\0\0\0"s)}},
      {"segments.dat", {"events of no size", Put(8, "\0\0\0\0"s)}},
  };
}

}  // namespace lumbra::test
