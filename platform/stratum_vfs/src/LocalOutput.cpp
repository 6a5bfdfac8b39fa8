// The `file` provider's output: a descriptor written through at every write, without a
// user-space buffer, so a refused write reaches the writer at the write that carried it.
#include <stratum/storage/vfs/Exception.hpp>

#include "LocalHost.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace stratum::storage::vfs::detail {

namespace {

int openFlags(std::ios_base::openmode mode) {
    int const access = (mode & std::ios_base::in) ? O_RDWR : O_WRONLY;
    if (mode & std::ios_base::app) {
        return access | O_CREAT | O_APPEND;
    }
    if ((mode & std::ios_base::trunc) || !(mode & std::ios_base::in)) {
        return access | O_CREAT | O_TRUNC;
    }
    return access;  // in|out: an existing file, overwritten in place
}

class DescriptorWriter : public provider::OutputBuffer {
public:
    DescriptorWriter(AbsoluteIRI iri, int fd) : iri_(std::move(iri)), fd_(fd) {}

    // Reached without close() only when the stream is dropped; every byte went to the kernel
    // at its write, and a later rename into place syncs the data and reports what the disk
    // refused, so the result of this close has nothing left to tell.
    ~DescriptorWriter() override {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    void close() override {
        int const fd = fd_;
        fd_ = -1;
        // EINTR: on Linux the descriptor is released all the same and must not be closed twice.
        if (::close(fd) != 0 && errno != EINTR) {
            throwHostErrno(errno, iri_);
        }
    }

protected:
    std::streamsize xsputn(char const* data, std::streamsize size) override {
        std::streamsize done = 0;
        while (done < size) {
            ssize_t const written = ::write(fd_, data + done, static_cast<std::size_t>(size - done));
            if (written > 0) {
                done += written;
            } else if (written < 0 && errno == EINTR) {
                continue;
            } else {
                throwHostErrno(written < 0 ? errno : EIO, iri_);
            }
        }
        return size;
    }
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            char const byte = traits_type::to_char_type(c);
            xsputn(&byte, 1);
        }
        return traits_type::not_eof(c);
    }
    pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
        if (!(which & std::ios_base::out)) {
            return pos_type(off_type(-1));
        }
        int const whence = dir == std::ios_base::beg ? SEEK_SET : dir == std::ios_base::cur ? SEEK_CUR : SEEK_END;
        return pos_type(off_type(::lseek(fd_, offset, whence)));
    }
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
        return seekoff(off_type(pos), std::ios_base::beg, which);
    }

private:
    AbsoluteIRI iri_;
    int fd_;
};

} // namespace

std::unique_ptr<provider::OutputBuffer> openLocalOutput(AbsoluteIRI const& iri, std::ios_base::openmode mode) {
    std::string const access = accessPath(iri);
    int fd;
    do {
        fd = ::open(access.c_str(), openFlags(mode) | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        throwHostErrno(errno, iri);
    }
    auto writer = std::make_unique<DescriptorWriter>(iri, fd);
    if ((mode & std::ios_base::ate) && ::lseek(fd, 0, SEEK_END) < 0) {
        throwHostErrno(errno, iri);
    }
    return writer;
}

} // namespace stratum::storage::vfs::detail
