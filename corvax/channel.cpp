#include "corvax/channel.h"

#include "corvax/exception.h"
#include "corvax/thread.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace Corvax {

namespace {

class ChannelReaderImpl : public ChannelReader, public ObjectImpl {
public:
   ChannelReaderImpl(std::string path, Ref<ChannelHandler> handler)
      : _path(std::move(path)), _handler(std::move(handler))
   {
   }

   void Close() override
   {
      Ref<ChannelHandler> dropped; // released after the lock, because it may own the subscriber
      const std::lock_guard guard(_mutex);
      dropped = std::exchange(_handler, nullptr);
   }

   /// Null once closed.
   Ref<ChannelHandler> GetHandler() const
   {
      const std::lock_guard guard(_mutex);
      return _handler;
   }

   bool Takes(const std::string& path) const
   {
      return _path.ends_with('/') ? path.starts_with(_path) : path == _path;
   }

private:
   const std::string _path;
   mutable std::mutex _mutex;
   Ref<ChannelHandler> _handler;
};

class MessageChannelsImpl : public MessageChannels, public ObjectImpl {
public:
   explicit MessageChannelsImpl(Ref<Logger> logger) : _logger(std::move(logger)) {}

   ~MessageChannelsImpl() override
   {
      {
         const std::lock_guard guard(_mutex);
         _stopping = true;
      }
      _changed.notify_all();
      if (_thread.joinable()) {
         _thread.join();
      }
   }

   Ref<ChannelReader> Subscribe(const std::string& path, Ref<ChannelHandler> handler) override
   {
      auto reader = MakeRef<ChannelReaderImpl>(path, std::move(handler));
      const std::lock_guard guard(_mutex);
      std::erase_if(_readers, [](const auto& old) { return !old->GetHandler(); });
      _readers.push_back(reader);
      if (!_thread.joinable()) {
         _thread = StartThread("channels", [this](const std::stop_token&) { Deliver(); });
      }
      return reader;
   }

   void Publish(const std::string& path, Ref<Object> message) override
   {
      const std::lock_guard guard(_mutex);
      for (const Ref<ChannelReaderImpl>& reader : _readers) {
         if (reader->Takes(path)) {
            _queue.push_back({reader, message});
         }
      }
      _changed.notify_all();
   }

   void Drain() override
   {
      std::unique_lock lock(_mutex);
      _changed.wait(lock, [this] { return _queue.empty() && !_delivering; });
   }

private:
   struct Delivery {
      Ref<ChannelReaderImpl> reader;
      Ref<Object> message;
   };

   void Deliver()
   {
      std::unique_lock lock(_mutex);
      while (true) {
         _changed.wait(lock, [this] { return _stopping || !_queue.empty(); });
         if (_stopping) {
            return;
         }
         _delivering = true;
         {
            const Delivery delivery = std::move(_queue.front());
            _queue.pop_front();
            lock.unlock();
            Handle(delivery);
         }
         lock.lock();
         _delivering = false;
         _changed.notify_all();
      }
   }

   void Handle(const Delivery& delivery)
   {
      const Ref<ChannelHandler> handler = delivery.reader->GetHandler();
      if (!handler) {
         return;
      }
      try {
         (*handler)(delivery.reader.Get(), delivery.message.Get());
      } catch (const Exception& e) {
         _logger->Log(kLogError, "A message handler failed: %1", e.GetMessage());
      } catch (const std::exception& e) {
         _logger->Log(kLogError, "A message handler failed: %1", e.what());
      }
   }

   const Ref<Logger> _logger;
   std::mutex _mutex; // under it only the readers' short operations are called
   std::condition_variable _changed;
   RefVector<ChannelReaderImpl> _readers;
   std::deque<Delivery> _queue;
   bool _delivering = false;
   bool _stopping = false;
   std::jthread _thread;
};

} // namespace

ChannelReader::~ChannelReader() = default;
MessageChannels::~MessageChannels() = default;

Ref<MessageChannels> NewMessageChannels(Ref<Logger> logger)
{
   return MakeRef<MessageChannelsImpl>(std::move(logger));
}

} // namespace Corvax
