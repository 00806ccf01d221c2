#include "console/program.h"

int main(int argc, char** argv) {
  return compat::programMain(std::vector<std::string>(argv, argv + argc));
}
