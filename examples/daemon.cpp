// daemon QUEUE FOLDER: a file for each stream, called .partial until it is whole. Syncs nothing.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <korvex/receiver/Receiver.h>

using namespace korvex::receiver;
std::atomic<bool> stop{false};

struct FileSink : Sink {
  explicit FileSink(const std::string& name) : path(name), file(name + ".partial") {
    file.exceptions(std::ios::failbit | std::ios::badbit);  // throws now if it is not open
  }
  void write(const unsigned char* data, std::size_t size) override {
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  void complete(const StreamSummary&, const StillFinishing&) override {
    file.close();
    std::filesystem::create_hard_link(path + ".partial", path);  // never replaces
    std::error_code ignored;  // it is whole now, under whatever names
    std::filesystem::remove(path + ".partial", ignored);
  }
  void abandon(const StreamSummary&, const std::string&) override {}  // its name says enough

  std::string path;
  std::ofstream file;
};

int main(int, char* arguments[]) try {
  for (const int signal : {SIGINT, SIGTERM}) std::signal(signal, [](int) { stop = true; });
  Observer silent;
  const auto open = [&, number = 0](const std::string& queue, std::time_t opened) mutable {
    const std::string name = queue + "-" + std::to_string(opened) + "-" + std::to_string(++number);
    return std::make_unique<FileSink>(std::string(arguments[2]) + "/" + name);
  };
  Receiver({arguments[1]}, open, silent).run(stop);
} catch (const std::exception& error) {
  return std::cerr << "daemon: " << error.what() << '\n', 1;
}
