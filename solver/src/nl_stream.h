// The pieces of a binary .nl file: segments, bounds, and expressions in prefix form.
//
//     NlStream out("model.nl");
//     out.sum(3); out.product(); out.number(2.5); out.variable(0); ...      2.5 * v0 + ...
//
// The binary form is a twin of the text form without its formatting: 12 bytes a linear term, and reading it takes no
// parsing. Numbers stand in the machine's own byte order, which the head of the file names.
#ifndef TARVO_NL_STREAM_H
#define TARVO_NL_STREAM_H

#include "file_stream.h"

namespace trv {

class NlStream {
  public:
    explicit NlStream(const std::string &path) : file_(path) {}
    void commit() { file_.commit(); }

    void text(std::string_view text) { file_.put(text); }
    void letter(char letter) { file_.put({&letter, 1}); }
    void integer(std::int32_t value) { raw(value); }
    void real(double value) { raw(value); }
    void term(std::int32_t variable, double value) { together(variable, value); }

    void segment(char kind, std::int32_t number) { together(kind, number); }
    void segment(char kind, std::int32_t number, std::int32_t count) {
        segment(kind, number);
        integer(count);
    }

    // Expressions.
    void number(double value) { together('n', value); }
    void variable(std::int32_t place) { segment('v', place); }
    void operation(std::int32_t code) { segment('o', code); }
    void product() { operation(kTimes); }
    // What begins a sum of so many summands: nothing for one, since the list form starts at three.
    void sum(std::int32_t count) {
        if (count == 2) {
            operation(kPlus);
        } else if (count > 2) {
            operation(kSumOfMany);
            integer(count);
        }
    }
    // value * first * second
    void product_term(double value, std::int32_t first, std::int32_t second) {
        if (value != 1) {
            product();
            number(value);
        }
        product();
        variable(first);
        variable(second);
    }

    void sides(double lower, double upper);

  private:
    static constexpr std::int32_t kPlus = 0, kTimes = 2, kSumOfMany = 54;

    template <typename T> void raw(T value) { file_.put({reinterpret_cast<const char *>(&value), sizeof value}); }

    // The pieces are small, so that each call for itself costs more than its bytes.
    template <typename First, typename Second> void together(First first, Second second) {
        char bytes[sizeof first + sizeof second];
        std::char_traits<char>::copy(bytes, reinterpret_cast<const char *>(&first), sizeof first);
        std::char_traits<char>::copy(bytes + sizeof first, reinterpret_cast<const char *>(&second), sizeof second);
        file_.put({bytes, sizeof bytes});
    }

    FileWriter file_;
};

} // namespace trv
#endif
