#pragma once

namespace vondle {

// Gives up everything but working on the descriptors that are open: from here on this process can open no file, make
// no socket, start no process and map no new code, and is ended when it uses too much memory or processor time.
// Threads can still be started. False when the kernel refuses; then nothing untrusted may be read.
// The limits on memory are left out in builds with a sanitizer, which reserves terabytes of addresses.
bool enterSandbox(int processorSeconds);

}  // namespace vondle
