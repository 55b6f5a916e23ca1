// The 4-byte header in front of every message on a framed TCP connection.
//
// Wire format:
//
//   offset 0  1 byte   marker   'F' (0x46)
//   offset 1  1 byte   version  1
//   offset 2  2 bytes  size     body length in bytes, header excluded;
//                               unsigned, most significant byte first
//
// A body is 1 to 65535 bytes long: a header announcing 0 bytes is a framing
// error, as is any other marker or version.
#ifndef KESTRIN_ZOR_SOCKETS_FRAME_HEADER_H_
#define KESTRIN_ZOR_SOCKETS_FRAME_HEADER_H_

namespace Zor {
namespace Sockets {

class FrameHeader {
 public:
  static constexpr unsigned int HEADER_SIZE = 4;
  static constexpr char MARKER = 'F';
  static constexpr unsigned char VERSION = 1;
  static constexpr unsigned int MAX_MESSAGE_SIZE = 65535;

  // Reads the header from the first HEADER_SIZE bytes at `bytes`.
  explicit FrameHeader(const unsigned char* bytes);

  // Writes a header announcing a body of `messageSize` bytes into the first
  // HEADER_SIZE bytes of `buffer`. A size above MAX_MESSAGE_SIZE cannot be
  // expressed: nothing is written and the result is false. Size 0 is
  // written as given (the receiver will reject it).
  static bool WriteMessageHeader(void* buffer, unsigned int messageSize);

  // True for marker 'F', version 1 and a non-zero size. Otherwise logs
  // "Received invalid message header of ( marker, version, size )" at level 1
  // and returns false. The marker appears as its character when printable
  // and as \xHH otherwise; version and size in decimal.
  bool IsValid() const;

  // The body size announced, 0 to 65535.
  unsigned int GetMessageSize() const { return size_; }
  char GetMarker() const { return marker_; }
  unsigned char GetVersion() const { return version_; }

 private:
  char marker_;
  unsigned char version_;
  unsigned int size_;
};

}  // namespace Sockets
}  // namespace Zor

#endif  // KESTRIN_ZOR_SOCKETS_FRAME_HEADER_H_
