#pragma once

#include "corvax/functor.h"
#include "corvax/logger.h"

#include <string>

namespace Corvax {

/// One subscription.
class ChannelReader : public virtual Object {
public:
   /// After this, only a message already being delivered reaches the handler. Does not wait for the
   /// handler, which may need a lock that the caller holds. Closing twice does nothing.
   virtual void Close() = 0;

protected:
   ~ChannelReader() override;
};

/// Called with the subscription and the message, one message at a time.
using ChannelHandler = Functor<ChannelReader*, Object*>;

/// Message channels by path. One thread of the agent delivers messages in the order in which they
/// were published. A subscription to a path that ends with "/" receives the messages of all paths
/// that start with it; any other only those of its own path.
///
/// Errors: exceptions of a handler are logged and dropped.
class MessageChannels : public virtual Object {
public:
   virtual Ref<ChannelReader> Subscribe(const std::string& path, Ref<ChannelHandler> handler) = 0;
   virtual void Publish(const std::string& path, Ref<Object> message) = 0;
   /// Returns when every message published so far has been handled. Not from a handler.
   virtual void Drain() = 0;

protected:
   ~MessageChannels() override;
};

Ref<MessageChannels> NewMessageChannels(Ref<Logger> logger);

} // namespace Corvax
