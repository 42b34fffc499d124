#ifndef KORVEX_CHANNEL_H
#define KORVEX_CHANNEL_H

#include <string>

#include "korvex/Export.h"
#include "korvex/ShmCommon.h"

namespace korvex {

/// A named stream that can be closed. Created closed; only the implementation opens and closes it.
/// Not copyable: an assignment would carry the open flag to a channel that was never opened.
///
/// The order of the virtual operations, here and in ChannelWriter, is part of the binary interface.
class KORVEX_EXPORT Channel {
 public:
  /// A closed channel of this name.
  explicit Channel(const std::string& name);
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Ends the stream as complete.
  virtual void close() = 0;
  virtual ~Channel();

 protected:
  bool isOpen;       ///< between open() and close()
  std::string name;  ///< the stream's name, for error texts
};

/// What a producer needs to drive a stream, whatever the transport. ShmWriter documents what each
/// operation does and throws.
class KORVEX_EXPORT ChannelWriter : public Channel {
 public:
  /// A closed channel of this name.
  explicit ChannelWriter(const std::string& name);
  ~ChannelWriter() override;

  /// @{
  /// As ShmWriter's operation of the same name.
  virtual void open() = 0;
  virtual void setSegmentAlg(korvex_seg_state_t state, unsigned long param1, unsigned long param2,
                             unsigned long param3) = 0;
  virtual void writeSegment(const unsigned char* data, unsigned long length) = 0;
  virtual void endSegment() = 0;
  virtual void stop(bool useStopTimeout) = 0;
  /// @}
};

}  // namespace korvex

#endif
