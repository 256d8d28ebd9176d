#include "bench/peers/measure.h"
#include "bench/peers/work.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace Peers;

constexpr size_t kRowBytes = 1452; // 180 samples of 8 bytes and a head of 12
constexpr size_t kHeadBytes = 12;
constexpr size_t kSampleBytes = 8;

/** Rows of all series in one file, read and written back whole, some neighbours at a time. */
class RowLoop : public Store {
public:
   RowLoop(const std::string& path, size_t rowsPerCall)
      : _rowsPerCall(rowsPerCall), _rows(rowsPerCall * kRowBytes)
   {
      _fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (_fd < 0) {
         ThrowErrno("open " + path);
      }
      // Row by row, as a store makes its file. Laid down by one large write, the page cache holds
      // it in large folios, and each small write to one of those costs two to three times as much.
      for (size_t row = 0; row < kSeriesCount; ++row) {
         if (pwrite(_fd, _rows.data(), kRowBytes, static_cast<off_t>(row * kRowBytes)) !=
             static_cast<ssize_t>(kRowBytes)) {
            ThrowErrno("pwrite " + path);
         }
      }
   }
   ~RowLoop() override { close(_fd); }
   RowLoop(const RowLoop&) = delete;
   RowLoop& operator=(const RowLoop&) = delete;

   void Prepare(int) override {}

   void Write(int stamp) override
   {
      for (size_t first = 0; first < kSeriesCount; first += _rowsPerCall) {
         MoveRows(first, std::min(_rowsPerCall, kSeriesCount - first), stamp);
      }
   }

private:
   void MoveRows(size_t first, size_t count, int stamp)
   {
      const size_t size = count * kRowBytes;
      const off_t at = static_cast<off_t>(first * kRowBytes);
      if (pread(_fd, _rows.data(), size, at) != static_cast<ssize_t>(size)) {
         ThrowErrno("pread of a row");
      }
      const size_t column = static_cast<size_t>(stamp % kStampCount);
      for (size_t ix = 0; ix < count; ++ix) {
         unsigned char* row = _rows.data() + ix * kRowBytes;
         std::memcpy(row, &stamp, sizeof(stamp));
         std::memcpy(row + kHeadBytes + column * kSampleBytes, &stamp, sizeof(stamp));
      }
      if (pwrite(_fd, _rows.data(), size, at) != static_cast<ssize_t>(size)) {
         ThrowErrno("pwrite of a row");
      }
   }

   size_t _rowsPerCall;
   std::vector<unsigned char> _rows;
   int _fd = -1;
};

void MeasureLoop(const Options& options, size_t rowsPerCall, const std::string& who)
{
   // Passes of one stamp: the loop has no roll-ups, and the median rides over what others do here.
   const Plan plan{.passes = options.quick ? 15 : 45,
                   .stampsPerPass = 1,
                   .coldWarmUp = 1,
                   .coldStamps = options.quick ? 5 : 15};
   int stamp = 0;
   RowLoop loop(options.scratch + "/rows", rowsPerCall);
   Chiller chiller(options.scratch);
   const std::string note = "no roll-ups, one file of 10,000 rows";
   Report("ingest-hot", who, HotCostUs(loop, plan, stamp), "us", note);
   Report("ingest-cold", who, ColdCostUs(loop, plan, chiller, stamp), "us",
          note + "; synced and CPU caches emptied before each pass");
}

void Measure(const Options& options)
{
   MeasureLoop(options, 1, "floor F1, pread + pwrite of a 1,452-byte row");
   MeasureLoop(options, 64, "floor F6, 64 neighbouring rows a pread and a pwrite");
}

} // namespace

int main(int argc, char** argv)
{
   return Peers::RunPeer(argc, argv, Measure);
}
