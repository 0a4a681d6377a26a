// An executable around the library's own main: this file only gives the linker something to link.
namespace Tavi::Testing {
extern const int TestEntryLinked;
const int TestEntryLinked = 1;
}  // namespace Tavi::Testing
