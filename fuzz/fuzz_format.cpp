// Fuzz target: the script formatter, as "newstring(format, values...)" calls it.
//
// Input layout: byte 0 holds the number of values (low 3 bits) and how many more the
// formatter is told there are than the vector holds (bits 3-4: those read as nil);
// then one record per value, a kind byte and its payload; the rest is the format (UTF-8).
// Kinds (mod 8): 0 integer (4 bytes), 1 float (4), 2 double (8), 3 string (length byte,
// UTF-8), 4 nil, 5 vector of two integers (8), 6 byte buffer (length byte, bytes),
// 7 character buffer (length byte, bytes).
#include <cstring>

#include "harness.h"

namespace {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}
  size_t left() const { return static_cast<size_t>(end_ - p_); }
  uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
  // n bytes, zero-filled past the end.
  void bytes(void* to, size_t n) {
    size_t k = n < left() ? n : left();
    memset(to, 0, n);
    memcpy(to, p_, k);
    p_ += k;
  }
  const uint8_t* rest() const { return p_; }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

QelValue readValue(Input& in) {
  uint8_t kind = in.byte() % 8;
  switch (kind) {
    case 0: {
      int32_t i;
      in.bytes(&i, sizeof i);
      return QelValue(i);
    }
    case 1: {
      float f;
      in.bytes(&f, sizeof f);
      return QelValue(f);
    }
    case 2: {
      double d;
      in.bytes(&d, sizeof d);
      return QelValue(d);
    }
    case 3: {
      size_t n = in.byte();
      std::string text(n < in.left() ? n : in.left(), '\0');
      in.bytes(&text[0], text.size());
      return QelValue(new QelString(text.c_str()));
    }
    case 5: {
      int32_t pair[2];
      in.bytes(pair, sizeof pair);
      QelVector* v = new QelVector();
      v->push_back(QelValue(pair[0]));
      v->push_back(QelValue(pair[1]));
      return QelValue(v);
    }
    case 6: {
      uint8_t n = in.byte();
      QelBuffer* b = new QelBuffer();
      for (uint8_t i = 0; i < n; ++i) b->push_back(in.byte());
      return QelValue(b);
    }
    case 7: {
      uint8_t n = in.byte();
      QelCharBuffer* b = new QelCharBuffer();
      for (uint8_t i = 0; i < n; ++i) b->push_back(static_cast<QelChar>(in.byte()));
      return QelValue(b);
    }
    default:
      return QelValue();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  uint8_t head = in.byte();
  unsigned int count = head & 7;
  unsigned int extra = (head >> 3) & 3;
  QelVector* values = new QelVector();
  QelValue keep(values);
  for (unsigned int i = 0; i < count; ++i) values->push_back(readValue(in));
  std::u16string format = qelfuzz::toText(in.rest(), in.left());
  ValPtr args(values, 0);
  QelString formatted(format.c_str(), count + extra, args);
  // Every character up to the terminator is read.
  volatile unsigned int length = qelStrLen(formatted.c_str());
  (void)length;
  return 0;
}
