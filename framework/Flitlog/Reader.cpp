// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// The file is read with pread() and never mapped: a mapping of a file that somebody shortens ends
// the process. A part of the ring is copied, and tail is read again afterwards: what it has passed
// by then may have changed while it was copied and is left out, the rest has not.
#include <Flitlog/Reader.h>

#include <Flitlog/Ring.h>
#include <Flitlog/detail/Create.h>
#include <Flitlog/detail/Format.h>
#include <Flitlog/detail/Points.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Flitlog {

using detail::Header;
using detail::RecordHead;

namespace {

static_assert( sizeof( off_t ) == 8, "trace files may be large: compile with "
                                     "_FILE_OFFSET_BITS=64" );

std::string text( std::uint64_t v ) { return std::to_string( v ); }

constexpr std::size_t windowMost = 8 << 20; // a ring of the usual size is copied at once
constexpr std::size_t windowLeast = 64 << 10;
constexpr std::size_t problemsKept = 1000;
constexpr std::uint64_t searchLeast = 64 << 20;
constexpr std::uint64_t page = 4096; // holes end where one begins
// A position beyond is no position: no writer lives long enough to get there.
constexpr std::uint64_t positionMost = std::uint64_t( 1 ) << 62;

// What a look at a place in the ring comes to: a record, or why there is none.
enum class Look { good, overwritten, atHead, size, values, sequence, check };

} // namespace

struct Reader::State {
   std::string path;
   detail::Descriptor file;
   std::uint64_t fileBytes = 0; // really there
   std::uint64_t diskBytes = 0; // and of them no holes
   unsigned levels = allLevels;
   Header header{}; // as of the last look at the positions

   std::unordered_map< std::uint32_t, detail::Point > points;
   std::uint64_t pointsRead = 0; // offset in the descriptors
   std::uint32_t lastPoint = 0;

   std::uint64_t at = 0;       // logical position of what comes next
   std::uint64_t head = 0;     // up to where next() goes
   std::uint64_t expected = 0; // number of the next record; 0: not known, as none has been read
   bool jumped = false;        // records were overwritten before `at`
   bool misplaced = false;     // the positions are wrong, and it has been said
   bool overfull = false;      // so is the descriptors' size

   std::vector< char > window; // a copy of [ windowAt, windowAt + windowSize )
   std::uint64_t windowAt = 0;
   std::size_t windowSize = 0;
   bool windowFinal = false;            // nobody wrote any more when it was copied
   std::size_t windowNext = windowMost; // how much is copied next: less behind a hole
   std::uint64_t budget = 0;            // bytes that may still be summed up in search of a record

   std::vector< std::string > problems;
   std::uint64_t problemsInAll = 0;
   std::uint64_t overwritten = 0;

   void problem( std::string const & sentence );
   std::size_t read( void * to, std::size_t bytes, std::uint64_t offset ) const;
   void readOrZero( char * to, std::size_t bytes, std::uint64_t offset ) const;
   std::uint64_t dataBehind( std::uint64_t offset ) const;
   void open();
   void checkGeometry();
   void checkLevels();
   std::uint64_t searchBudget() const;
   bool positions();
   void poll();

   std::uint32_t checkEntry( std::uint64_t offset, std::uint64_t used, std::string & bytes ) const;
   void readPoints();
   void readPointAt( std::uint64_t used );

   bool fill( std::uint64_t position, std::size_t bytes );
   Look load( std::uint64_t position, std::size_t bytes, char const *& from );
   Look plausible( std::uint64_t position, RecordHead & found );
   Look whole( std::uint64_t position, RecordHead & found );
   Look lookAgain( RecordHead & found );
   std::string sentence( Look look, RecordHead const & found ) const;
   void skipDamage( std::string const & wrong );
   bool search( std::uint64_t & position, RecordHead & found );
   bool give( RecordHead const & found, Record & record );
   void count( RecordHead const & found );
   bool next( Record & record );
};

void Reader::State::problem( std::string const & sentence ) {
   if( problems.size() < problemsKept )
      problems.push_back( sentence );
   ++problemsInAll;
}

// How many bytes there were; fewer at the file's end, or where the disk fails.
std::size_t Reader::State::read( void * to, std::size_t bytes, std::uint64_t offset ) const {
   std::size_t done = 0;
   while( done != bytes ) {
      auto const got = ::pread( file.get(), static_cast< char * >( to ) + done, bytes - done,
                                static_cast< off_t >( offset + done ) );
      if( got < 0 && errno == EINTR )
         continue;
      if( got <= 0 )
         break;
      done += static_cast< std::size_t >( got );
   }
   return done;
}

void Reader::State::readOrZero( char * to, std::size_t bytes, std::uint64_t offset ) const {
   std::size_t const got = read( to, bytes, offset );
   std::fill( to + got, to + bytes, '\0' );
}

// Where bytes have been written at this offset of the file or behind it. A ring is allocated as a
// whole, but whoever means harm gives a few bytes a size of many gigabytes, all of them a hole.
std::uint64_t Reader::State::dataBehind( std::uint64_t offset ) const {
   auto const found = ::lseek( file.get(), static_cast< off_t >( offset ), SEEK_DATA );
   if( found >= 0 )
      return static_cast< std::uint64_t >( found ) / 8 * 8;
   return errno == ENXIO ? std::max( offset, fileBytes ) : offset;
}

// --- Opening ---

void Reader::State::open() {
   char const * const expected_ = "expected a trace file";
   file = detail::Descriptor( ::open( path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK ) );
   if( !file )
      detail::fail( path, std::string( "cannot be opened; " ) + expected_, errno );
   struct stat status {};
   if( ::fstat( file.get(), &status ) != 0 )
      detail::fail( path, "cannot be read", errno );
   if( !S_ISREG( status.st_mode ) )
      detail::fail( path, std::string( S_ISDIR( status.st_mode ) ? "is a directory; "
                                                                 : "is not a regular file; " ) +
                             expected_ );
   fileBytes = static_cast< std::uint64_t >( status.st_size );
   diskBytes = static_cast< std::uint64_t >( status.st_blocks ) * 512;
   std::size_t const got = read( &header, sizeof header, 0 );
   if( got == 0 )
      detail::fail( path, std::string( "is empty; " ) + expected_ );
   if( std::memcmp( header.magic, detail::magic, std::min( got, sizeof detail::magic ) ) != 0 )
      detail::fail( path, "is not a trace file; expected it to begin with the bytes "
                          "8b 46 6c 69 74 0d 0a 1a" );
   if( got != sizeof header )
      detail::fail( path, "is cut off after " + text( got ) + " bytes; expected a header of " +
                             text( sizeof header ) );
   if( header.majorVersion != detail::majorVersion )
      detail::fail( path, "has format version " + text( header.majorVersion ) + "." +
                             text( header.minorVersion ) + "; expected version " +
                             text( detail::majorVersion ) );
   checkGeometry();
   checkLevels();
   budget = searchBudget() + header.descriptorsBytes;
}

void Reader::State::checkGeometry() {
   Header const & h = header;
   auto const multiple = []( std::uint64_t v ) { return v % 8 == 0; };
   bool const fits =
      h.headerBytes >= sizeof h && h.headerBytes <= 65536 && h.descriptorsAt >= h.headerBytes &&
      h.descriptorsAt <= detail::ringMost && h.descriptorsBytes <= detail::descriptorsMost &&
      h.ringAt >= h.descriptorsAt + h.descriptorsBytes && h.ringAt <= detail::ringMost &&
      h.ringBytes >= detail::ringLeast && h.ringBytes <= detail::ringMost &&
      h.fileBytes == h.ringAt + h.ringBytes && h.recordMost >= 64 && h.recordMost <= h.ringBytes &&
      h.recordMost <= detail::recordMostOfAll && multiple( h.headerBytes ) &&
      multiple( h.descriptorsAt ) && multiple( h.descriptorsBytes ) && multiple( h.ringAt ) &&
      multiple( h.ringBytes ) && multiple( h.recordMost );
   bool const whole = detail::headerCheck( h ) == h.check;
   if( !fits )
      detail::fail( path, "has a header that cannot be used; expected parts one behind the other, "
                          "found descriptors at " +
                             text( h.descriptorsAt ) + " with " + text( h.descriptorsBytes ) +
                             " bytes, a ring at " + text( h.ringAt ) + " with " +
                             text( h.ringBytes ) + " bytes, " + text( h.fileBytes ) +
                             " bytes in all" );
   if( !whole )
      problem( "in the header: expected the check sum " + text( detail::headerCheck( h ) ) +
               ", found " + text( h.check ) );
   if( fileBytes != h.fileBytes )
      problem( "the file has " + text( fileBytes ) + " bytes: expected " + text( h.fileBytes ) );
}

void Reader::State::checkLevels() {
   if( header.minorVersion == 0 )
      return; // took every one
   bool const eachOnce = ( header.levelsTaken ^ header.levelsLeftOut ) == allLevels &&
                         ( header.levelsTaken & header.levelsLeftOut ) == 0;
   if( eachOnce && header.levelsTaken != 0 )
      levels = header.levelsTaken;
   else
      problem( "in the header: expected each level taken or left out, as the bits of two words "
               "that add up to " +
               text( allLevels ) + ", found " + text( header.levelsTaken ) + " and " +
               text( header.levelsLeftOut ) );
}

// Some times what is really there, as a header can claim any size. Where that is little it is
// enough for a usual ring all the same: a file system may store less than it gives.
std::uint64_t Reader::State::searchBudget() const {
   return 4 * std::min( header.ringBytes, std::max( diskBytes, searchLeast ) );
}

// Reads what changes in the header. False, and the header as before, when it makes no sense.
bool Reader::State::positions() {
   bool last = false;
   for( int attempt = 0; attempt != 1000; ++attempt ) {
      Header one{};
      Header two{};
      if( read( &one, sizeof one, 0 ) != sizeof one || read( &two, sizeof two, 0 ) != sizeof two )
         break;
      // A copy made by the system need not take a position in one piece. Of two copies the larger
      // tail and the smaller head are on the safe side.
      one.tail = std::max( one.tail, two.tail );
      one.head = std::min( one.head, two.head );
      one.descriptorsUsed = std::min( one.descriptorsUsed, two.descriptorsUsed );
      bool const sound = one.tail <= one.head && one.head - one.tail <= header.ringBytes &&
                         one.tail % 8 == 0 && one.head % 8 == 0 && one.head >= head &&
                         one.head <= positionMost;
      if( sound ) {
         header.tail = one.tail;
         header.head = one.head;
         header.descriptorsUsed = one.descriptorsUsed;
         header.lostDescriptors = one.lostDescriptors;
         header.lostRecords = one.lostRecords;
         return true;
      }
      if( std::memcmp( &one, &two, sizeof one ) == 0 || last ) {
         header.tail = one.tail;
         header.head = one.head;
         break;
      }
      // A writer that is gone by now may have been there between the two copies.
      last = !detail::hasWriter( file.get() );
   }
   if( !misplaced )
      problem( "in the header: expected tail and head, multiples of 8 that are at most " +
               text( header.ringBytes ) + " apart, found " + text( header.tail ) + " and " +
               text( header.head ) );
   misplaced = true;
   return false;
}

void Reader::State::poll() {
   budget = std::max( budget, searchBudget() );
   if( misplaced || !positions() ) {
      head = at;
      return;
   }
   head = header.head;
   if( at < header.tail ) {
      at = header.tail;
      jumped = true;
   }
   readPoints();
}

// --- Descriptors ---

// The size of the descriptor that begins there, 0 when there is none.
std::uint32_t Reader::State::checkEntry( std::uint64_t offset, std::uint64_t used,
                                         std::string & bytes ) const {
   detail::DescriptorHead entry{};
   if( used - offset < sizeof entry ||
       read( &entry, sizeof entry, header.descriptorsAt + offset ) != sizeof entry )
      return 0;
   if( entry.size < sizeof entry || entry.size % 8 != 0 || entry.size > used - offset ||
       entry.size > detail::descriptorMost || entry.id <= lastPoint )
      return 0;
   bytes.resize( entry.size );
   if( read( bytes.data(), entry.size, header.descriptorsAt + offset ) != entry.size )
      return 0;
   return detail::entryCheck( bytes.data(), entry.size ) == entry.check ? entry.size : 0;
}

void Reader::State::readPointAt( std::uint64_t used ) {
   std::string bytes;
   std::uint64_t const start = pointsRead;
   std::uint32_t size = checkEntry( pointsRead, used, bytes );
   while( size == 0 && pointsRead + 8 < used && budget > bytes.size() + 8 ) {
      budget -= bytes.size() + 8;
      bytes.clear();
      pointsRead += 8;
      if( ( header.descriptorsAt + pointsRead ) % page == 0 )
         pointsRead = std::min( used, dataBehind( header.descriptorsAt + pointsRead ) -
                                         header.descriptorsAt );
      size = checkEntry( pointsRead, used, bytes );
   }
   if( size == 0 )
      pointsRead = used;
   if( pointsRead != start )
      problem( "at offset " + text( start ) + " of the descriptors: expected descriptor " +
               text( lastPoint + std::uint64_t( 1 ) ) + ", found bytes that are none; skipped " +
               text( pointsRead - start ) + " bytes" );
   if( size == 0 )
      return;
   detail::Point point;
   std::string const wrong = detail::readPoint( bytes, point );
   lastPoint = point.id;
   if( wrong.empty() )
      points[ point.id ] = std::move( point );
   else
      problem( "at offset " + text( pointsRead ) + " of the descriptors, descriptor " +
               text( point.id ) + ": " + wrong );
   pointsRead += size;
}

void Reader::State::readPoints() {
   std::uint64_t used = header.descriptorsUsed;
   if( used > header.descriptorsBytes || used % 8 != 0 ) {
      if( !overfull )
         problem( "in the header: expected " + text( header.descriptorsBytes ) +
                  " bytes of descriptors at most, a multiple of 8, found " + text( used ) );
      overfull = true;
      used = header.descriptorsBytes;
   }
   // What is cut off has been reported, and need not be searched.
   std::uint64_t const there =
      fileBytes > header.descriptorsAt ? ( fileBytes - header.descriptorsAt ) / 8 * 8 : 0;
   used = std::min( used, there );
   while( pointsRead < used )
      readPointAt( used );
}

// --- The ring ---

// Copies a part of the ring that begins at the position. False when the position has been
// overwritten meanwhile; `at` and the header's positions then say where the ring begins now.
bool Reader::State::fill( std::uint64_t position, std::size_t bytes ) {
   windowSize = static_cast< std::size_t >(
      std::min< std::uint64_t >( std::max( bytes, windowNext ), head - position ) );
   windowNext = std::min( 2 * windowNext, windowMost );
   windowAt = position;
   window.resize( windowSize );
   std::uint64_t const offset = position % header.ringBytes;
   auto const before = static_cast< std::size_t >(
      std::min< std::uint64_t >( windowSize, header.ringBytes - offset ) );
   windowFinal = !detail::hasWriter( file.get() );
   readOrZero( window.data(), before, header.ringAt + offset );
   readOrZero( window.data() + before, windowSize - before, header.ringAt );
   if( !positions() ) {
      // They made sense before. Nothing says what is whole now.
      at = head;
      return false;
   }
   if( header.tail <= position )
      return true;
   // Where reading goes on if it was to begin here; a search ahead of `at` loses what it skipped.
   at = std::min( header.tail, head );
   jumped = true;
   windowSize = 0;
   return false;
}

Look Reader::State::load( std::uint64_t position, std::size_t bytes, char const *& from ) {
   bool const there = position >= windowAt && position - windowAt <= windowSize &&
                      bytes <= windowSize - ( position - windowAt );
   if( !there && !fill( position, bytes ) )
      return Look::overwritten;
   from = window.data() + ( position - windowAt );
   return Look::good;
}

// Whether a record may begin there: everything but its contents.
Look Reader::State::plausible( std::uint64_t position, RecordHead & found ) {
   std::uint64_t const rest = head - position;
   if( rest < sizeof found )
      return Look::atHead;
   char const * from = nullptr;
   if( load( position, sizeof found, from ) == Look::overwritten )
      return Look::overwritten;
   std::memcpy( &found, from, sizeof found );
   std::uint64_t const most = std::min< std::uint64_t >( rest, header.recordMost );
   if( found.size < sizeof found || found.size > most || found.size % 8 != 0 )
      return Look::size;
   if( detail::upToEight( sizeof found + std::uint64_t( found.valueBytes ) ) != found.size )
      return Look::values;
   if( found.sequence < expected || found.sequence == 0 )
      return Look::sequence;
   return Look::good;
}

// The same with its contents.
Look Reader::State::whole( std::uint64_t position, RecordHead & found ) {
   Look const look = plausible( position, found );
   if( look != Look::good )
      return look;
   char const * from = nullptr;
   if( load( position, found.size, from ) == Look::overwritten )
      return Look::overwritten;
   return detail::entryCheck( from, found.size ) == found.check ? Look::good : Look::check;
}

// At `at`. In a file that is being written, damage is believed only when a second look finds it.
Look Reader::State::lookAgain( RecordHead & found ) {
   Look look = whole( at, found );
   for( int attempt = 0; look != Look::good && look != Look::overwritten && attempt != 3;
        ++attempt ) {
      if( windowFinal )
         break;
      windowSize = 0;
      look = whole( at, found );
   }
   return look;
}

// What is wrong with what was found at `at`.
std::string Reader::State::sentence( Look look, RecordHead const & found ) const {
   std::uint64_t const rest = head - at;
   switch( look ) {
   case Look::atHead:
      return "expected a record of " + text( sizeof found ) + " bytes at least, found " +
             text( rest ) + " bytes up to head";
   case Look::size:
      return "expected a record's size, a multiple of 8 from " + text( sizeof found ) + " to " +
             text( std::min< std::uint64_t >( rest, header.recordMost ) ) + ", found " +
             text( found.size );
   case Look::values:
      return "expected values that fill a record of " + text( found.size ) + " bytes, found " +
             text( found.valueBytes ) + " bytes of values";
   case Look::sequence:
      return "expected record " + text( std::max< std::uint64_t >( expected, 1 ) ) +
             ", found record " + text( found.sequence );
   default:
      return "expected a record whose check sum is right, found " + text( found.check ) +
             " for one of " + text( found.size ) + " bytes";
   }
}

// Looks behind a damaged place for the next record: one whose number fits to what was skipped.
bool Reader::State::search( std::uint64_t & position, RecordHead & found ) {
   std::uint64_t const start = position;
   std::uint64_t const there = fileBytes > header.ringAt ? fileBytes - header.ringAt : 0;
   for( position += 8; position < head; position += 8 ) {
      std::uint64_t const offset = position % header.ringBytes;
      if( offset >= there ) {
         // Cut off up to the ring's end.
         position += header.ringBytes - offset - 8;
         continue;
      }
      if( ( header.ringAt + offset ) % page == 0 ) {
         std::uint64_t const data = dataBehind( header.ringAt + offset ) - header.ringAt;
         if( data > offset ) {
            position += std::min( data, header.ringBytes ) - offset - 8;
            windowNext = windowLeast; // behind a few bytes the next hole may begin
            continue;
         }
      }
      Look look = plausible( position, found );
      if( look == Look::overwritten )
         return false;
      std::uint64_t const between = ( position - start ) / sizeof found;
      if( look != Look::good || ( expected != 0 && found.sequence - expected > between ) )
         continue;
      if( budget < found.size )
         break;
      budget -= found.size;
      look = whole( position, found );
      if( look == Look::overwritten )
         return false;
      if( look == Look::good )
         return true;
   }
   position = head;
   return true;
}

void Reader::State::skipDamage( std::string const & wrong ) {
   std::uint64_t const start = at;
   std::uint64_t position = at;
   RecordHead found{};
   if( !search( position, found ) )
      return; // Nobody can say any more what was there.
   std::string missing;
   if( position != head && expected != 0 && found.sequence > expected )
      missing = found.sequence - expected == 1 ? "; record " + text( expected ) + " is missing"
                                               : "; records " + text( expected ) + " to " +
                                                    text( found.sequence - 1 ) + " are missing";
   problem( "at ring position " + text( start ) + ": " + wrong + "; skipped " +
            text( position - start ) + " bytes" + missing );
   at = position;
   expected = position != head ? found.sequence : 0;
}

// Accounts for what lies between this record and the one before.
void Reader::State::count( RecordHead const & found ) {
   std::uint64_t const gap = expected == 0 ? 0 : found.sequence - expected;
   if( jumped )
      overwritten += gap;
   else if( gap != 0 )
      problem( "at ring position " + text( at ) + ": expected record " + text( expected ) +
               ", found record " + text( found.sequence ) );
   jumped = false;
   expected = found.sequence + 1;
}

// From the window. False when the contents cannot be understood, which is then a problem.
bool Reader::State::give( RecordHead const & found, Record & record ) {
   char const * const from = window.data() + ( at - windowAt );
   auto const point = points.find( found.id );
   std::string wrong;
   if( point == points.end() ) {
      wrong = "expected the id of a descriptor that can be read, found " + text( found.id );
   } else {
      detail::Point const & p = point->second;
      wrong = detail::readText( p, { from + sizeof found, found.valueBytes }, record.text );
      record.sequence = found.sequence;
      record.time = found.time;
      record.handle = p.handle;
      record.level = p.level;
      record.source = p.source;
      record.line = p.line;
      record.function = p.function;
   }
   if( !wrong.empty() )
      problem( "at ring position " + text( at ) + ", record " + text( found.sequence ) + ": " +
               wrong );
   at += found.size;
   return wrong.empty();
}

bool Reader::State::next( Record & record ) {
   while( at < head ) {
      RecordHead found{};
      Look const look = lookAgain( found );
      if( look != Look::good && look != Look::overwritten )
         skipDamage( sentence( look, found ) );
      if( look != Look::good )
         continue;
      count( found );
      if( give( found, record ) )
         return true;
   }
   return false;
}

// --- The interface ---

std::unique_ptr< Reader > Reader::ReaderIs( std::string const & path ) {
   auto state = std::make_unique< State >();
   state->path = path;
   state->open();
   state->poll();
   state->jumped = false;
   return std::unique_ptr< Reader >( new Reader( std::move( state ) ) );
}

Reader::Reader( std::unique_ptr< State > state ) : state_( std::move( state ) ) {}
Reader::~Reader() = default;

bool Reader::next( Record & record ) { return state_->next( record ); }
void Reader::poll() { state_->poll(); }
bool Reader::hasWriter() const { return detail::hasWriter( state_->file.get() ); }
std::vector< std::string > const & Reader::problems() const { return state_->problems; }
std::uint64_t Reader::problemsInAll() const { return state_->problemsInAll; }
std::uint64_t Reader::overwritten() const { return state_->overwritten; }
std::uint64_t Reader::lostDescriptors() const { return state_->header.lostDescriptors; }
std::uint64_t Reader::lostRecords() const { return state_->header.lostRecords; }
std::uint32_t Reader::process() const { return state_->header.process; }
double Reader::created() const { return state_->header.created; }
unsigned Reader::levels() const { return state_->levels; }

} // namespace Flitlog
