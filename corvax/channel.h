#pragma once

#include "corvax/functor.h"
#include "corvax/logger.h"

#include <string>

namespace Corvax {

/// One subscription.
class ChannelReader : public virtual Object {
public:
   /// No message is handed over that was not yet on its way; waits for no handler, so that a
   /// handler may need a lock that the caller holds. Closing twice does nothing.
   virtual void Close() = 0;

protected:
   ~ChannelReader() override;
};

/// What a subscriber gives: called with the subscription and the message, one message at a time.
using ChannelHandler = Functor<ChannelReader*, Object*>;

/// Message channels by path. Messages are delivered in the order in which they were published, on
/// one delivery thread of the agent. A path that ends with "/" takes the messages of all paths that
/// start with it; any other takes those of its own path.
///
/// Errors: what a handler throws is logged and goes no further.
class MessageChannels : public virtual Object {
public:
   virtual Ref<ChannelReader> Subscribe(const std::string& path, Ref<ChannelHandler> handler) = 0;
   virtual void Publish(const std::string& path, Ref<Object> message) = 0;
   /// Returns when all that was published before has been handled; not from a handler.
   virtual void Drain() = 0;

protected:
   ~MessageChannels() override;
};

Ref<MessageChannels> NewMessageChannels(Ref<Logger> logger);

} // namespace Corvax
