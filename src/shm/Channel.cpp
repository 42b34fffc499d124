#include "korvex/Channel.h"

namespace korvex {

Channel::Channel(const std::string& channelName) : isOpen(false), name(channelName) {}

Channel::~Channel() = default;

ChannelWriter::ChannelWriter(const std::string& channelName) : Channel(channelName) {}

ChannelWriter::~ChannelWriter() = default;

}  // namespace korvex
