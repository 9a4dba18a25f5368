// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Process.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// Standard streams that are closed, full, or pipes that nobody reads.

namespace {

struct Streams : Process::Folder {
   struct Line {
      std::string command;
      int status;
      bool prints; // to standard output
   };

   Streams() {
      file( "good.yaml", "agents: {A: {Boot: {complete: 1}}}\n" );
      file( "stalled.yaml", "agents: {A: {Boot: {complete: never}}}\n" );
      file( "wrong.yaml", "agents: {A: {Boot: {timeout: -1}}}\n" );
      file( "late.yaml", "agents: {A: {Boot: {critical: true, timeout: 5, complete: 8}}}\n" );
      std::string many = "agents:\n";
      for( int i = 0; i < 300; ++i )
         many += "  A" + std::to_string( i ) + ": {S" + std::to_string( i ) + ": {}}\n";
      file( "many.yaml", many );
      EXPECT_EQ( shell( "\"$ordovan\" simulate --quiet --ring ring --ring-size 64K good.yaml && "
                        "cp ring damaged && printf XXXXXXXX | dd of=damaged conv=notrunc bs=1 "
                        "seek=1000 2>/dev/null" )
                    .status,
                 0 );
   }

   // Every subcommand, with every status that it has.
   std::vector< Line > const lines = {
      { "ordovan simulate good.yaml", 0, true },
      { "ordovan simulate late.yaml", 0, true },
      { "ordovan simulate many.yaml", 0, true },
      { "ordovan simulate --quiet good.yaml", 0, false },
      { "ordovan simulate stalled.yaml", 1, true },
      { "ordovan simulate --quiet stalled.yaml", 1, false },
      { "ordovan simulate wrong.yaml", 2, false },
      { "ordovan simulate none.yaml", 2, false },
      { "ordovan simulate good.yaml --record none/record", 2, false },
      { "ordovan simulate --trace 0-9 --quiet good.yaml", 0, false },
      { "ordovan simulate --help", 0, true },
      { "ordovan simulate --unknown", 2, false },
      { "ordovan inspect good.yaml", 0, true },
      { "ordovan inspect many.yaml", 0, true },
      { "ordovan inspect late.yaml statusSm/application", 0, true },
      { "ordovan inspect good.yaml none", 2, false },
      { "ordovan inspect wrong.yaml", 2, false },
      { "ordovan inspect --help", 0, true },
      { "ordovan --help", 0, true },
      { "ordovan --version", 0, true },
      { "ordovan", 2, false },
      { "ordovan simulat", 2, false },
      { "flitlog ring", 0, true },
      { "flitlog ring --from 2 --to 1", 2, false },
      { "flitlog damaged", 1, true },
      { "flitlog none", 2, false },
      { "flitlog", 2, false },
      { "flitlog --help", 0, true },
   };

   Process::Finished run( Line const & line, std::string const & redirections ) const {
      return shell( "PATH=\"${ordovan%/*}:$PATH\"; " + line.command + " " + redirections );
   }
   // What it gives with nothing wrong.
   Process::Finished const & usual( Line const & line ) {
      auto const [ place, isNew ] = usual_.try_emplace( line.command );
      if( isNew )
         place->second = run( line, "" );
      return place->second;
   }
   // The same with a pipe that nobody reads as descriptor 4.
   Process::Finished runWithDeadPipe( Line const & line, std::string const & redirections ) const {
      return run(
         { "rm -f pipe; mkfifo pipe; exec 3<>pipe; exec 4>pipe; exec 3<&-; " + line.command, 0,
           false },
         redirections );
   }

 private:
   std::map< std::string, Process::Finished > usual_;
};

TEST_F( Streams, HaveTheirUsualStatusWithNothingWrong ) {
   for( auto const & line : lines ) {
      EXPECT_EQ( usual( line ).status, line.status ) << line.command;
      EXPECT_EQ( usual( line ).out.empty(), !line.prints ) << line.command;
   }
}

TEST_F( Streams, StandardErrorThatIsOfNoUseChangesNoStatus ) {
   for( auto const & line : lines ) {
      for( auto const * redirection : { "2>/dev/full", "2>&-", "2>&- <&-" } ) {
         auto const finished = run( line, redirection );
         EXPECT_EQ( finished.status, line.status ) << line.command << redirection;
         EXPECT_EQ( finished.out, usual( line ).out ) << line.command << redirection;
      }
      EXPECT_EQ( runWithDeadPipe( line, "2>&4" ).status, line.status ) << line.command;
   }
}

TEST_F( Streams, StandardOutputThatCannotBeWrittenIsToldAndHasStatusTwo ) {
   for( auto const & line : lines ) {
      for( auto const & [ redirection, reason ] :
           std::vector< std::pair< std::string, std::string > >{
              { ">/dev/full", "No space left on device" }, { ">&-", "Bad file descriptor" } } ) {
         auto const finished = run( line, redirection );
         EXPECT_EQ( finished.status, line.prints ? 2 : line.status ) << line.command << redirection;
         auto const name = line.command.substr( 0, line.command.find( ' ' ) );
         auto const told = name + ": standard output cannot be written: " + reason + "\n";
         auto const place = finished.err.find( told );
         EXPECT_EQ( place != std::string::npos, line.prints ) << line.command << redirection << '\n'
                                                              << finished.err;
         auto const rest = line.prints && place != std::string::npos
                              ? std::string( finished.err ).erase( place, told.size() )
                              : finished.err;
         EXPECT_EQ( rest, usual( line ).err ) << line.command << redirection;
      }
   }
}

TEST_F( Streams, NothingToSayItWithIsNoReasonToAbort ) {
   for( auto const & line : lines ) {
      for( auto const * redirections : { ">&- 2>&-", ">/dev/full 2>&1", "<&- >&- 2>&-" } ) {
         EXPECT_EQ( run( line, redirections ).status, line.prints ? 2 : line.status )
            << line.command << redirections;
      }
   }
}

TEST_F( Streams, AReaderThatHasSeenEnoughIsNoFailure ) {
   for( auto const & line : lines ) {
      auto const finished = runWithDeadPipe( line, ">&4" );
      EXPECT_EQ( finished.status, line.status ) << line.command;
      EXPECT_EQ( finished.err, usual( line ).err ) << line.command;
   }
}

TEST_F( Streams, AFileThatIsOpenedDoesNotTakeThePlaceOfAClosedStream ) {
   // More than the streams keep to themselves until the record is closed.
   EXPECT_EQ( ordovan( "simulate many.yaml --record right" ).status, 0 );
   EXPECT_EQ( ordovan( "simulate many.yaml --trace 0-9 --record one <&- >&- 2>&-" ).status, 2 );
   EXPECT_EQ( ordovan( "simulate many.yaml --record two >&-" ).status, 2 );
   EXPECT_EQ( ordovan( "simulate many.yaml --trace 0-9 --record three 2>&-" ).status, 0 );
   auto const record = Process::contents( folder / "right" );
   EXPECT_FALSE( record.empty() );
   for( auto const * name : { "one", "two", "three" } )
      EXPECT_TRUE( Process::contents( folder / name ) == record ) << name;
}

} // namespace
