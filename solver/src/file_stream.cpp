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

#include "stop.h"
#include "text_scan.h"

namespace trv {
namespace {

constexpr std::size_t kPiece = 1 << 20;
constexpr std::size_t kLongestLine = 1 << 28; // noise without line ends must not eat the memory

// An archive that unpacks to much more than this is none of a model (5 to 20 times is usual, 60 was seen), and ten
// megabytes of it would fill any memory. Deflate ends at 1032.
constexpr std::int64_t kMostUnpacked = 250, kUnpackedWithoutDoubt = 1 << 26;

std::string reason(int error) {
    return std::generic_category().message(error);
}

std::string no_file(mode_t mode) {
    return S_ISDIR(mode) ? reason(EISDIR) : "it is a pipe or a device, not a file";
}

// zlib puts "<fd:3>: " before its messages.
std::string_view without_descriptor(std::string_view message) {
    const std::size_t colon = message.find(": ");
    return message.starts_with('<') && colon != std::string_view::npos ? message.substr(colon + 2) : message;
}

} // namespace

bool ends_with_gz(std::string_view path) {
    return path.size() > 3 && equal_ignoring_case(path.substr(path.size() - 3), ".gz");
}

// ---- reading --------------------------------------------------------------------------------------------------------

namespace {

// Of files alone: a pipe without a writer would be waited for, and none is read twice, as MPS may be (see read_mps); a
// device may never end.
int open_file(const std::string &path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status;
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        throw FileError{TRV_ERROR_FILE, joined("cannot open ", in_quotes(path), ": ", reason(errno))};
    }
    if (!S_ISREG(status.st_mode)) {
        close(descriptor);
        throw FileError{TRV_ERROR_FILE, joined("cannot open ", in_quotes(path), ": ", no_file(status.st_mode))};
    }
    return descriptor;
}

void skip_byte_order_mark(std::string_view &line) {
    if (line.starts_with("\xFF\xFE") || line.starts_with("\xFE\xFF")) {
        throw LineError{"the file is UTF-16 text: UTF-8 is read"};
    }
    if (line.starts_with("\xEF\xBB\xBF")) {
        line.remove_prefix(3);
    }
}

} // namespace

LineReader::LineReader(std::string path) : path_(std::move(path)), file_(nullptr), buffer_(kPiece) {
    const int descriptor = open_file(path_);
    file_ = gzdopen(descriptor, "rb");
    if (file_ == nullptr) {
        close(descriptor);
        throw FileError{TRV_ERROR_FILE, joined("cannot open ", in_quotes(path_), ": ", reason(ENOMEM))};
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
    check_stop();
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size()) {
        check_long_line();
        buffer_.resize(buffer_.size() * 2);
    }
    errno = 0;
    const int wanted = static_cast<int>(buffer_.size() - end_);
    const int got = gzread(file_, buffer_.data() + end_, static_cast<unsigned>(wanted));
    int status = Z_OK;
    const int system_error = errno;
    const char *message = gzerror(file_, &status);
    if (got < 0 || (status != Z_OK && status != Z_STREAM_END)) {
        throw FileError{TRV_ERROR_FILE,
                        joined("cannot read ", in_quotes(path_), ": ",
                               status == Z_ERRNO ? reason(system_error) : std::string(without_descriptor(message)))};
    }
    at_end_ = got < wanted;
    end_ += static_cast<std::size_t>(got);
    unpacked_ += got;
    if (unpacked_ > kUnpackedWithoutDoubt && unpacked_ / kMostUnpacked > gzoffset(file_)) {
        throw FileError{TRV_ERROR_FILE, joined("cannot read ", in_quotes(path_), ": it unpacks to more than ",
                                               std::to_string(kMostUnpacked), " times its size, as no model does")};
    }
    return true;
}

// Before more room is made for it. A zero byte is looked for here because empty disk blocks have nothing else.
void LineReader::check_long_line() {
    if (std::memchr(buffer_.data(), '\0', end_) != nullptr) {
        ++number_;
        refuse_control('\0');
    }
    if (buffer_.size() >= kLongestLine) {
        ++number_;
        throw LineError{joined("longer than ", std::to_string(kLongestLine), " bytes")};
    }
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
    if (++number_ == 1) {
        skip_byte_order_mark(line);
    }
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
    follow_links();
    struct stat old;
    const bool exists = stat(target_.c_str(), &old) == 0;
    if (exists) {
        check_replaceable(old.st_mode);
    }
    open_temporary();
    if (exists && fchmod(descriptor_, old.st_mode & 07777) != 0) {
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

// To the file itself, which need not be there yet: the links stay.
void FileWriter::follow_links() {
    namespace fs = std::filesystem;
    std::error_code none;
    for (int depth = 0; fs::is_symlink(target_, none); ++depth) {
        if (depth == 40) { // where the system stops too
            refuse(ELOOP);
        }
        target_ = (fs::path(target_).parent_path() / fs::read_symlink(target_, none)).string();
    }
}

// A new file takes the place of the old one, which asks for no right to write the old one: so that is asked here. Of a
// pipe or a device (/dev/full) the name itself would be lost.
void FileWriter::check_replaceable(mode_t mode) const {
    if (!S_ISREG(mode)) {
        throw FileError{TRV_ERROR_FILE, joined("cannot write ", in_quotes(path_), ": ", no_file(mode))};
    }
    if (access(target_.c_str(), W_OK) != 0) {
        refuse(errno);
    }
}

// Not mkstemp, which makes private files: this one gets the rights that the user's umask gives to any new file. Its
// name is not made of the target's, which may be as long as names can be.
void FileWriter::open_temporary() {
    const std::string folder = target_.substr(0, target_.rfind('/') + 1);
    for (int attempt = 0; descriptor_ < 0; ++attempt) {
        temporary_ = joined(folder, ".tarvo-", std::to_string(getpid()), "-", std::to_string(attempt), ".tmp");
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
        check_stop();
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
