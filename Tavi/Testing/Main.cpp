// The library's own entry point. A program with a main of its own is not affected: its object file wins.
#include "Tavi/Testing/TestGstApi.h"

int main() {
  Tavi::Testing::TestGstApi();
}
