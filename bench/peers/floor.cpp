#include "bench/peers/measure.h"
#include "bench/peers/work.h"
#include "corvax/descriptor.h"

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

/** Rows of all series in one file, read and written back whole, in ranges of neighbouring rows. */
class RowLoop : public Store {
public:
   RowLoop(const std::string& path, size_t rowsPerCall)
      : _rowsPerCall(rowsPerCall), _rows(rowsPerCall * kRowBytes),
        _file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))
   {
      if (!_file) {
         ThrowErrno("open " + path);
      }
      // Row by row, as a store creates its file. One large write would put the file into large
      // folios of the page cache, and a small write to one of those costs two to three times as
      // much.
      for (size_t row = 0; row < kSeriesCount; ++row) {
         if (pwrite(_file.Get(), _rows.data(), kRowBytes, static_cast<off_t>(row * kRowBytes)) !=
             static_cast<ssize_t>(kRowBytes)) {
            ThrowErrno("pwrite " + path);
         }
      }
   }

   void Prepare(int /*stamp*/) override {}

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
      if (pread(_file.Get(), _rows.data(), size, at) != static_cast<ssize_t>(size)) {
         ThrowErrno("pread of a row");
      }
      const size_t column = static_cast<size_t>(stamp % kStampCount);
      for (size_t ix = 0; ix < count; ++ix) {
         unsigned char* row = _rows.data() + ix * kRowBytes;
         std::memcpy(row, &stamp, sizeof(stamp));
         std::memcpy(row + kHeadBytes + column * kSampleBytes, &stamp, sizeof(stamp));
      }
      if (pwrite(_file.Get(), _rows.data(), size, at) != static_cast<ssize_t>(size)) {
         ThrowErrno("pwrite of a row");
      }
   }

   size_t _rowsPerCall;
   std::vector<unsigned char> _rows;
   Corvax::Descriptor _file;
};

void MeasureLoop(const Options& options, size_t rowsPerCall, const std::string& who)
{
   // One stamp per repetition: the loop has no rollups, and the median hides the machine's other
   // load.
   const Plan plan{.repetitions = options.quick ? 15 : 45,
                   .stampsPerRepetition = 1,
                   .coldWarmUp = 1,
                   .coldStamps = options.quick ? 5 : 15};
   int stamp = 0;
   RowLoop loop(options.scratch + "/rows", rowsPerCall);
   const CacheFlusher flusher(options.scratch);
   const std::string note = "no rollups, one file of 10,000 rows";
   Report("ingest-hot", who, HotCostUs(loop, plan, stamp), "us", note);
   Report("ingest-cold", who, ColdCostUs(loop, plan, flusher, stamp), "us",
          note + "; synced and CPU caches emptied before each stamp");
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
