// LocalFileSystemOps: file streams. A failed open is reported with the system's own error
// number and text followed by the path, not through the exception translation; a failed write of an output stream
// throws opc::Exception from that write.

#include <opc/Exception.hpp>
#include <opc/LocalFileSystemOps.hpp>

#include "fs/LocalTranslate.hpp"

#include <vela/filesystem/fstream.hpp>

#include <cerrno>
#include <cstring>

namespace opc {

namespace host = vela::filesystem;

namespace {

// The library's open-mode bits have fixed values; map each to the platform's own.
std::ios_base::openmode toOpenMode(unsigned mode) {
    std::ios_base::openmode result{};
    if (mode & OpenMode::Append)
        result |= std::ios_base::app;
    if (mode & OpenMode::AtEnd)
        result |= std::ios_base::ate;
    if (mode & OpenMode::Binary)
        result |= std::ios_base::binary;
    if (mode & OpenMode::In)
        result |= std::ios_base::in;
    if (mode & OpenMode::Out)
        result |= std::ios_base::out;
    if (mode & OpenMode::Truncate)
        result |= std::ios_base::trunc;
    return result;
}

// Stream and count in one allocation. errno is cleared first so that a failed open that left it
// alone (an open-mode combination the library refuses, such as in with truncate) is not
// reported with a stale number: it becomes EINVAL. The detail names the path, as every other
// failure of this back end does.
template <class Stream, class Handle>
Handle openStream(std::u16string const& path, unsigned mode, std::string& detail,
                  boost::system::error_code& ec) {
    errno = 0;
    auto stream = std::make_shared<Stream>(path, toOpenMode(mode));
    if (!stream->fail() && !stream->bad())
        return stream;
    int const error = errno != 0 ? errno : EINVAL;
    detail = std::string(std::strerror(error)) + ": " + detail::pathText(path);
    ec = boost::system::error_code(error, boost::system::generic_category());
    return Handle();
}

// Installed in every output stream: the host's exception of a refused write, through the one
// translation of this back end, becomes the library's own.
[[noreturn]] void throwWriteFailure() {
    std::string text;
    boost::system::error_code code;
    detail::translateHostException(text, code);
    throw Exception("write failed: " + text, code);
}

} // namespace

std::shared_ptr<std::istream> LocalFileSystemOps::doCreateInputStream(const std::u16string& path, unsigned mode,
                                                                      std::string& detail, error_code& ec) {
    return detail::guardedHostCall(std::shared_ptr<std::istream>(), detail, ec, [&] {
        return openStream<host::basic_ifstream<char>, std::shared_ptr<std::istream>>(path, mode | OpenMode::In,
                                                                                     detail, ec);
    });
}

std::shared_ptr<std::ostream> LocalFileSystemOps::doCreateOutputStream(const std::u16string& path, unsigned mode,
                                                                       std::string& detail, error_code& ec) {
    return detail::guardedHostCall(std::shared_ptr<std::ostream>(), detail, ec, [&] {
        auto stream = openStream<host::basic_ofstream<char>, std::shared_ptr<host::basic_ofstream<char>>>(
            path, mode | OpenMode::Out, detail, ec);
        if (stream)
            stream->set_failure_handler(throwWriteFailure);
        return std::shared_ptr<std::ostream>(std::move(stream));
    });
}

} // namespace opc
