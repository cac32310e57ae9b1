// Text files in and out, plain or compressed (.gz).
//
//     LineReader lines("afiro.mps.gz");
//     for (std::string_view line; lines.next(line);) ...          line is valid until the next call
//
//     FileWriter file("out.mps");
//     file.put("NAME"); file.put_number(0.1);
//     file.commit();                                              without it the old file stays as it was
#ifndef TARVO_FILE_STREAM_H
#define TARVO_FILE_STREAM_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "file_error.h"

struct gzFile_s;

namespace trv {

bool ends_with_gz(std::string_view path);

// Reads in pieces of a megabyte and hands out lines inside of them. Whether a file is compressed is told by its first
// bytes, not its name. Throws FileError for what the system or a damaged archive refuses, LineError for a line beyond
// any sense.
class LineReader {
  public:
    explicit LineReader(std::string path);
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // False at the end. The line is without its end, "\n" or "\r\n" (a last line needs none), and the first one
    // without a byte order mark.
    bool next(std::string_view &line);
    std::int64_t number() const { return number_; } // of the last line, from 1
    const std::string &path() const { return path_; }
    // Reads an archive to its end, for only there its checksum stands.
    void drain();

  private:
    bool refill();
    void check_long_line();

    std::string path_;
    gzFile_s *file_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0, end_ = 0;
    std::int64_t number_ = 0, unpacked_ = 0;
    bool at_end_ = false;
};

// Writes to a temporary file beside the target, which commit() puts in the target's place at once.
class FileWriter {
  public:
    explicit FileWriter(const std::string &path);
    ~FileWriter();
    FileWriter(const FileWriter &) = delete;
    FileWriter &operator=(const FileWriter &) = delete;

    void put(std::string_view text) {
        if (used_ + text.size() > kRoom) {
            put_slowly(text);
            return;
        }
        text.copy(buffer_.data() + used_, text.size());
        used_ += text.size();
    }
    void put_number(double value);
    void commit();

  private:
    // A call for each 64 KB costs next to nothing, and small models should not pay for more room.
    static constexpr std::size_t kRoom = 1 << 16;
    void follow_links();
    void check_replaceable(mode_t mode) const;
    void open_temporary();
    void discard();
    void put_slowly(std::string_view text);
    void flush();
    void write_out(std::string_view text);
    [[noreturn]] void refuse(int error) const;

    std::string path_, target_, temporary_; // as given; with links followed; beside the target
    int descriptor_ = -1;
    gzFile_s *archive_ = nullptr;
    std::vector<char> buffer_;
    std::size_t used_ = 0;
};

} // namespace trv
#endif
