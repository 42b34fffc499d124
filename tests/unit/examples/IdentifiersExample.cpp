#include <iostream>
#include <korvex/UniqueIdGenerator.h>

int main() {
  korvex::UniqueIdGenerator* const ids = korvex::UniqueIdGenerator::getInstance();
  std::cout << ids->generateId("job") << '\n';
  std::cout << ids->generateId("job") << '\n';
  std::cout << ids->generateId("stream") << '\n';
  std::cout << ids->generateId("") << '\n';
}
