#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "korvex/Channel.h"
#include "korvex/UniqueIdGenerator.h"

// Not linked with the library: loads it by itself, as a host loads its plug-ins.
namespace {

class Library {
 public:
  Library(const std::string& path, int mode) : handle_(::dlopen(path.c_str(), RTLD_NOW | mode)) {
    if (handle_ == nullptr) throw std::runtime_error(::dlerror());
  }
  ~Library() { ::dlclose(handle_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  template <typename Function>
  Function* function(const char* mangledName) const {
    void* const address = ::dlsym(handle_, mangledName);
    if (address == nullptr) throw std::runtime_error(::dlerror());
    return reinterpret_cast<Function*>(address);
  }

 private:
  void* handle_;
};

std::string draw(const Library& library) {
  const auto getInstance = library.function<korvex::UniqueIdGenerator*()>(
      "_ZN6korvex17UniqueIdGenerator11getInstanceEv");
  const auto generateId =
      library.function<std::string(korvex::UniqueIdGenerator*, const std::string&)>(
          "_ZN6korvex17UniqueIdGenerator10generateIdERKNSt7__cxx1112basic_stringIcSt11char_"
          "traitsIcESaIcE"
          "EE");
  return generateId(getInstance(), "id");
}

/// The file whose virtual table a channel writer of this library has.
std::string tableOwner(const Library& library) {
  const auto construct = library.function<void(void*, const std::string&)>(
      "_ZN6korvex13ChannelWriterC2ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
  alignas(korvex::ChannelWriter) unsigned char object[sizeof(korvex::ChannelWriter)];
  construct(object, "x");
  void* table;
  std::memcpy(&table, object, sizeof table);
  Dl_info info;
  if (::dladdr(table, &info) == 0) throw std::runtime_error("the table is in no file");
  return info.dli_fname;
}

/// A copy of the library's file, removed at the end.
class CopiedFile {
 public:
  CopiedFile() : path_(testing::TempDir() + "libkorvex-copy-" + std::to_string(::getpid())) {
    std::ofstream(path_, std::ios::binary)
        << std::ifstream(KORVEX_LIBRARY, std::ios::binary).rdbuf();
  }
  ~CopiedFile() { ::unlink(path_.c_str()); }
  CopiedFile(const CopiedFile&) = delete;
  CopiedFile& operator=(const CopiedFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  const std::string path_;
};

}  // namespace

TEST(Loading, AgainDoesNotRepeatIdentifiers) {
  const std::string before = draw(Library(KORVEX_LIBRARY, RTLD_LOCAL));
  const std::string after = draw(Library(KORVEX_LIBRARY, RTLD_LOCAL));
  EXPECT_EQ(before, "id_0");
  EXPECT_EQ(after, "id_1");
}

// The names of the first copy are seen everywhere, so that the second would find them first.
TEST(Loading, TwoCopiesHaveVirtualTablesOfTheirOwn) {
  const CopiedFile copy;
  const Library first(KORVEX_LIBRARY, RTLD_GLOBAL);
  const Library second(copy.path(), RTLD_LOCAL);
  EXPECT_EQ(tableOwner(first), KORVEX_LIBRARY);
  EXPECT_EQ(tableOwner(second), copy.path());
}
