// Temporary output files removed when the tool is interrupted (SIGINT,
// SIGTERM, SIGHUP), so that Ctrl-C leaves neither a partial target nor a
// stray temporary file. A SIGKILL cannot be caught: the target is still
// safe (it is only ever replaced by a rename), the temporary file stays.
#pragma once

namespace qimra::tool {

// Registers a path to unlink on interruption (installing the handlers on
// first use); returns a handle for forget_on_interrupt, or -1 when the
// table is full or the path too long (the file is then just not cleaned).
int remove_on_interrupt(const char* path);
void forget_on_interrupt(int handle);

}  // namespace qimra::tool
