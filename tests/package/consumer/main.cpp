// Uses the installed library as a product would: packs two records, reads them back, catches an
// error of the library by the platform's type.
#include <iostream>
#include <korvex/ShmBatch.h>
#include <korvex/ShmWriter.h>
#include <korvex/Status.h>
#include <queue>

namespace {

const unsigned char kData[] = {'a', 'b', 'c'};

korvex::ShmBatch::Entry recordOf(std::uint32_t type, std::uint32_t length) {
  korvex::qmx_shm_message_t header;
  header.type = type;
  header.len = length;
  return korvex::ShmBatch::Entry(header, length == 0 ? nullptr : kData);
}

}  // namespace

int main() {
  korvex::ShmBatch batch(8 + 48 + 3 + 48);
  batch.pushBack(recordOf(1, sizeof kData));
  batch.pushBack(recordOf(2, 0));

  std::queue<korvex::ShmBatch::Entry> entries;
  korvex::ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
  std::cout << "two records: " << entries.front() << " and " << entries.back() << std::endl;

  try {
    korvex::validateTimeout(0);
  } catch (const Ov_ErrnoException& error) {
    std::cout << "refused: " << error.getMessage() << std::endl;
    return error.getStatus() == korvex::kStatusInvalidArgument ? 0 : 1;
  }
  return 1;
}
