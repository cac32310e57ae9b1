// Text files in and out, plain or compressed, through zlib (see file_stream.h).
#include "file_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "text_scan.h"

namespace trv {
namespace {

constexpr std::size_t kPiece = 1 << 20;
constexpr std::size_t kLongestLine = 1 << 28; // noise without line ends must not eat the memory

std::string reason(int error) {
    return std::generic_category().message(error);
}

// zlib puts the path before its messages, and so do we.
std::string without(const std::string &path, std::string_view message) {
    const std::string prefix = path + ": ";
    return std::string(message.starts_with(prefix) ? message.substr(prefix.size()) : message);
}

} // namespace

bool ends_with_gz(std::string_view path) {
    return path.size() > 3 && equal_ignoring_case(path.substr(path.size() - 3), ".gz");
}

// ---- reading --------------------------------------------------------------------------------------------------------

LineReader::LineReader(std::string path) : path_(std::move(path)), file_(nullptr), buffer_(kPiece) {
    errno = 0;
    file_ = gzopen(path_.c_str(), "rb");
    if (file_ == nullptr) {
        const int error = errno != 0 ? errno : ENOMEM;
        throw FileError{TRV_ERROR_FILE, joined("cannot open ", in_quotes(path_), ": ", reason(error))};
    }
    gzbuffer(file_, kPiece / 4);
}

LineReader::~LineReader() {
    gzclose(file_);
}

bool LineReader::refill() {
    if (at_end_) {
        return false;
    }
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size()) {
        if (buffer_.size() >= kLongestLine) {
            ++number_;
            throw LineError{joined("longer than ", std::to_string(kLongestLine), " bytes")};
        }
        buffer_.resize(buffer_.size() * 2);
    }
    errno = 0;
    const int wanted = static_cast<int>(buffer_.size() - end_);
    const int got = gzread(file_, buffer_.data() + end_, static_cast<unsigned>(wanted));
    int status = Z_OK;
    const int system_error = errno;
    const char *message = gzerror(file_, &status);
    if (got < 0 || (status != Z_OK && status != Z_STREAM_END)) {
        throw FileError{TRV_ERROR_FILE, joined("cannot read ", in_quotes(path_), ": ",
                                               status == Z_ERRNO ? reason(system_error) : without(path_, message))};
    }
    at_end_ = got < wanted;
    end_ += static_cast<std::size_t>(got);
    return true;
}

bool LineReader::next(std::string_view &line) {
    std::size_t searched = 0;
    for (;;) {
        const char *start = buffer_.data() + begin_;
        const std::size_t length = end_ - begin_;
        const void *found = std::memchr(start + searched, '\n', length - searched);
        if (found != nullptr) {
            line = {start, static_cast<std::size_t>(static_cast<const char *>(found) - start)};
            begin_ += line.size() + 1;
            break;
        }
        searched = length;
        if (!refill()) {
            if (length == 0) {
                return false;
            }
            line = {start, length};
            begin_ = end_;
            break;
        }
    }
    ++number_;
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return true;
}

void LineReader::drain() {
    if (gzdirect(file_)) {
        return;
    }
    do {
        begin_ = end_ = 0;
    } while (refill());
}

// ---- writing --------------------------------------------------------------------------------------------------------

FileWriter::FileWriter(const std::string &path) : path_(path), target_(path), buffer_(kRoom) {
    std::error_code missing;
    const std::filesystem::path real = std::filesystem::canonical(path, missing); // through a link, to the file itself
    if (!missing) {
        target_ = real.string();
    }
    open_temporary();
    struct stat old;
    if (stat(target_.c_str(), &old) == 0 && fchmod(descriptor_, old.st_mode & 07777) != 0) {
        const int error = errno;
        discard();
        refuse(error);
    }
    if (ends_with_gz(path)) {
        archive_ = gzdopen(descriptor_, "wb");
        if (archive_ == nullptr) {
            discard();
            refuse(ENOMEM);
        }
    }
}

// Not mkstemp, which makes private files: this one gets the rights that the user's umask gives to any new file.
void FileWriter::open_temporary() {
    for (int attempt = 0; descriptor_ < 0; ++attempt) {
        temporary_ = joined(target_, ".", std::to_string(getpid()), "-", std::to_string(attempt), ".tmp");
        descriptor_ = open(temporary_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
        if (descriptor_ < 0 && (errno != EEXIST || attempt == 1000)) {
            refuse(errno);
        }
    }
}

void FileWriter::discard() {
    if (archive_ != nullptr) {
        gzclose(archive_);
    } else if (descriptor_ >= 0) {
        close(descriptor_);
    }
    if (!temporary_.empty()) {
        unlink(temporary_.c_str());
    }
}

FileWriter::~FileWriter() {
    discard();
}

void FileWriter::refuse(int error) const {
    throw FileError{TRV_ERROR_FILE, joined("cannot write ", in_quotes(path_), ": ", reason(error))};
}

void FileWriter::put_slowly(std::string_view text) {
    flush();
    if (text.size() > kRoom) {
        write_out(text);
    } else {
        text.copy(buffer_.data(), text.size());
        used_ = text.size();
    }
}

void FileWriter::put_number(double value) {
    char buffer[kNumberSize];
    put(number_text(value, buffer));
}

void FileWriter::flush() {
    write_out({buffer_.data(), used_});
    used_ = 0;
}

void FileWriter::write_out(std::string_view text) {
    while (!text.empty()) {
        errno = 0;
        const std::size_t piece = std::min(text.size(), kRoom);
        const ssize_t done = archive_ != nullptr ? gzwrite(archive_, text.data(), static_cast<unsigned>(piece))
                                                 : ::write(descriptor_, text.data(), piece);
        if (done <= 0) {
            if (errno == EINTR) {
                continue;
            }
            refuse(errno != 0 ? errno : EIO);
        }
        text.remove_prefix(static_cast<std::size_t>(done));
    }
}

void FileWriter::commit() {
    flush();
    errno = 0;
    const bool closed = archive_ != nullptr ? gzclose(archive_) == Z_OK : close(descriptor_) == 0;
    archive_ = nullptr;
    descriptor_ = -1;
    if (!closed || rename(temporary_.c_str(), target_.c_str()) != 0) {
        refuse(errno != 0 ? errno : EIO);
    }
    temporary_.clear();
}

} // namespace trv
