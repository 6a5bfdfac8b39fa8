#include <opc/Streams.hpp>

#include <sched.h>

namespace opc {

namespace {
constexpr unsigned long kChunkSize = 16384;
}

// Streams may be fed or drained by another thread, so no progress is not an error: the loop
// yields and retries without limit. The order of calls (read, then isDone; write, then isDone)
// is part of the contract: streams that learn they are done only after a read rely on it.
bool StreamHelper::copyStreamToStream(InputStream& in, OutputStream& out) {
    unsigned char buffer[kChunkSize];
    bool result = true;
    for (;;) {
        unsigned long const n = in.read(buffer, kChunkSize);
        bool const inDone = in.isDone();
        if (n == 0 && !inDone) {
            sched_yield();
            continue;
        }
        bool outDone = false;
        if (n != 0) {
            unsigned long written = out.write(buffer, n);
            for (;;) {
                outDone = out.isDone();
                if (written >= n || outDone) {
                    break;
                }
                sched_yield();
                written += out.write(buffer + written, n - written);
            }
            if (written < n) {
                result = false;
            }
        }
        if (inDone || outDone) {
            return result;
        }
    }
}

// The wrappers add nothing but the adaptor: no open, flush or close, no state check after.
bool StreamHelper::copyStreamToStream(InputStream& in, std::ostream& out) {
    StdOStreamAdaptor output(out);
    return copyStreamToStream(in, output);
}

bool StreamHelper::copyStreamToStream(std::istream& in, OutputStream& out) {
    StdIStreamAdaptor input(in);
    return copyStreamToStream(input, out);
}

bool StreamHelper::copyStreamToStream(std::istream& in, std::ostream& out) {
    StdIStreamAdaptor input(in);
    StdOStreamAdaptor output(out);
    return copyStreamToStream(input, output);
}

} // namespace opc
