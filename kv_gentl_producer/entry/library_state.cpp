#include "entry/library_state.h"

namespace pelorin {

LibraryState &library() {
    // Never destroyed: a consumer thread may still call in while the process
    // exits, and the locks must outlive every such call.
    static LibraryState *state = new LibraryState;
    return *state;
}

}  // namespace pelorin
