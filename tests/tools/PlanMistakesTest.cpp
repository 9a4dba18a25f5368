// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/PlanReader.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Lines = std::vector< std::string >;

// Everything that is wrong with `text`, as "LINE:COLUMN: what".
Lines mistakes( std::string_view text ) {
   Lines found;
   for( auto const & mistake : Tools::readPlan( text ).mistakes ) {
      found.push_back( std::to_string( mistake.place.line ) + ':' +
                       std::to_string( mistake.place.column ) + ": " + mistake.text );
   }
   return found;
}

// What is wrong with one event, whose text begins in line 1, column 1 of its own.
Lines eventMistakes( std::string const & text ) {
   return mistakes( "agents:\n  A:\n    S:\n" + text );
}

// What is wrong with a timeline, given the agent A with an event for S; entries begin in line 3.
Lines timelineMistakes( std::string const & entries ) {
   return mistakes( "agents: {A: {S: {}}}\ntimeline:\n" + entries );
}

std::string const anEvent = "the event for stage \"S\"";
std::string const aName =
   "a name: text that is not empty, in quotes if it looks like something else";
std::string const aTimeout = "a number of seconds, 0 or more, or .inf";
std::string const aBehaviour = "a number of seconds, 0 or more, never, or true";
std::string const aTime = "a finite number of seconds, 0 or more";
std::string const anOperation =
   "it must have one of declare, enabled, join, leave, set and withdraw";

TEST( PlanMistakes, UnknownKeysAreNamedWithTheKnownOnes ) {
   EXPECT_EQ( mistakes( "agent: {}\n" ),
              ( Lines{ "1:1: unknown key \"agent\" in the plan; allowed are agents, application, "
                       "enabled and timeline" } ) );
   EXPECT_EQ( eventMistakes( "      timeot: 3\n" ),
              ( Lines{ "4:7: unknown key \"timeot\" in " + anEvent +
                       "; allowed are complete, critical, dependency and timeout" } ) );
   EXPECT_EQ( timelineMistakes( "  - {at: 1, enabled: true, why: x}\n" ),
              ( Lines{ "3:28: unknown key \"why\" in an entry of the timeline; allowed are agent, "
                       "at, declare, enabled, join, leave, set, stage and withdraw" } ) );
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: A, stage: S, set: {name: x}}\n" ),
              ( Lines{ "3:39: unknown key \"name\" in \"set\"; allowed are complete, critical, "
                       "dependency and timeout" } ) );
}

TEST( PlanMistakes, DuplicateKeysAreFoundAtEveryLevel ) {
   EXPECT_EQ( mistakes( "agents: {}\nagents: {}\n" ),
              ( Lines{ "2:1: key \"agents\" stands twice in one map, first at 1:1; each key may "
                       "stand once" } ) );
   EXPECT_EQ( mistakes( "agents:\n  A: {}\n  B: {S: {}, S: {timeout: 1, timeout: 2}}\n  A: {}\n" ),
              ( Lines{ "3:14: key \"S\" stands twice in one map, first at 3:7; each key may stand "
                       "once",
                       "3:30: key \"timeout\" stands twice in one map, first at 3:18; each key may "
                       "stand once",
                       "4:3: key \"A\" stands twice in one map, first at 2:3; each key may stand "
                       "once" } ) );
   EXPECT_EQ( timelineMistakes( "  - {at: 1, enabled: true, at: 2}\n" ),
              ( Lines{ "3:28: key \"at\" stands twice in one map, first at 3:6; each key may stand "
                       "once" } ) );
}

TEST( PlanMistakes, WrongTypesAreNamedWithTheRightOnes ) {
   EXPECT_EQ( mistakes( "[]\n" ), ( Lines{ "1:1: the plan is a list; it must be a map" } ) );
   EXPECT_EQ( mistakes( "application: 42\nenabled: yes\nagents: []\ntimeline: {}\n" ),
              ( Lines{ "1:14: \"application\" is 42; it must be " + aName,
                       "2:10: \"enabled\" is \"yes\"; it must be true or false",
                       "3:9: \"agents\" is a list; it must be a map",
                       "4:11: \"timeline\" is a map; it must be a list" } ) );
   EXPECT_EQ( eventMistakes( "      timeout: soon\n      critical: 1\n      dependency: Boot\n"
                             "      complete: [1]\n" ),
              ( Lines{ "4:16: \"timeout\" is \"soon\"; it must be " + aTimeout,
                       "5:17: \"critical\" is 1; it must be true or false",
                       "6:19: \"dependency\" is \"Boot\"; it must be a list of stages, or a map of "
                       "stages to true or false",
                       "7:17: \"complete\" is a list; it must be " + aBehaviour } ) );
   EXPECT_EQ( eventMistakes( "      dependency: [Boot, 1, true, [x], {}]\n" ),
              ( Lines{ "4:26: a stage in \"dependency\" is 1; it must be " + aName,
                       "4:29: a stage in \"dependency\" is true; it must be " + aName,
                       "4:35: a stage in \"dependency\" is a list; it must be " + aName,
                       "4:40: a stage in \"dependency\" is a map; it must be " + aName } ) );
   EXPECT_EQ( eventMistakes( "      dependency: {Boot: 1, Net: null}\n" ),
              ( Lines{ "4:26: dependency \"Boot\" is 1; it must be true or false",
                       "4:34: dependency \"Net\" is null; it must be true or false" } ) );
}

TEST( PlanMistakes, QuotingTurnsValuesIntoText ) {
   EXPECT_EQ(
      eventMistakes( "      timeout: '3'\n      critical: \"true\"\n      complete: '.inf'\n" ),
      ( Lines{ "4:16: \"timeout\" is \"3\"; it must be " + aTimeout,
               "5:17: \"critical\" is \"true\"; it must be true or false",
               "6:17: \"complete\" is \".inf\"; it must be " + aBehaviour } ) );
}

TEST( PlanMistakes, NegativeTimesAndNaNAreRefusedEverywhere ) {
   for( std::string const value : { "-1", "-0.001", "-.inf", ".nan", ".NaN", "1e999" } ) {
      EXPECT_EQ( eventMistakes( "      timeout: " + value + "\n      complete: " + value + "\n" ),
                 ( Lines{ "4:16: \"timeout\" is " + value + "; it must be " + aTimeout,
                          "5:17: \"complete\" is " + value + "; it must be " + aBehaviour } ) );
      EXPECT_EQ( timelineMistakes( "  - {at: " + value +
                                   ", enabled: true}\n"
                                   "  - {at: 1, agent: A, stage: S, set: {timeout: " +
                                   value + "}}\n" ),
                 ( Lines{ "3:10: \"at\" is " + value + "; it must be " + aTime,
                          "4:48: \"timeout\" is " + value + "; it must be " + aTimeout } ) );
   }
}

TEST( PlanMistakes, AnInfiniteAtIsRefused ) {
   EXPECT_EQ( timelineMistakes( "  - {at: .inf, enabled: true}\n" ),
              ( Lines{ "3:10: \"at\" is .inf; it must be " + aTime } ) );
}

TEST( PlanMistakes, EmptyNamesAreRefusedEverywhere ) {
   EXPECT_EQ( mistakes( "application: ''\n" ),
              ( Lines{ "1:14: \"application\" is \"\"; it must be " + aName } ) );
   EXPECT_EQ(
      mistakes( "agents:\n  '': {}\n  A: {'': {}}\n" ),
      ( Lines{ "2:3: a name in \"agents\" is empty; it must have a character at least",
               "3:7: a name in agent \"A\" is empty; it must have a character at least" } ) );
   EXPECT_EQ( eventMistakes( "      dependency: ['']\n" ),
              ( Lines{ "4:20: a stage in \"dependency\" is \"\"; it must be " + aName } ) );
   EXPECT_EQ( eventMistakes( "      dependency: {'': true}\n" ),
              ( Lines{ "4:20: a name in \"dependency\" is empty; it must have a character at "
                       "least" } ) );
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: '', leave: true}\n"
                                "  - {at: 1, agent: A, stage: '', withdraw: true}\n" ),
              ( Lines{ "3:20: \"agent\" is \"\"; it must be " + aName,
                       "4:30: \"stage\" is \"\"; it must be " + aName } ) );
}

TEST( PlanMistakes, ANullKeyIsNoName ) {
   EXPECT_EQ(
      mistakes( "agents: {~: {}, null: {}}\n" ),
      ( Lines{ "1:10: a key of \"agents\" is ~; it must be a name, in quotes if it looks "
               "like that",
               "1:17: a key of \"agents\" is null; it must be a name, in quotes if it looks "
               "like that" } ) );
}

TEST( PlanMistakes, WhatIsLeftOutIsNoDefault ) {
   std::string const event = "; it must be a map, {} for an event with the default values";
   EXPECT_EQ( mistakes( "agents:\n  A:\n    Boot:\n    Net: ~\n    Disk: true\n" ),
              ( Lines{ "3:5: the event for stage \"Boot\" is empty" + event,
                       "4:10: the event for stage \"Net\" is ~" + event,
                       "5:11: the event for stage \"Disk\" is true" + event } ) );
   EXPECT_EQ( mistakes( "agents:\n  A:\n" ),
              ( Lines{ "2:3: agent \"A\" is empty; it must be a map" } ) );
   EXPECT_EQ( mistakes( "agents:\ntimeline:\n" ),
              ( Lines{ "1:1: \"agents\" is empty; it must be a map",
                       "2:1: \"timeline\" is empty; it must be a list" } ) );
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: A, stage: S, set: }\n"
                                "  -\n"
                                "  - {at: 1, agent: B, join: }\n"
                                "  - {at: 1, agent: A, stage: T, declare: }\n" ),
              ( Lines{ "3:33: \"set\" is empty; it must be a map",
                       "4:3: an entry of the timeline is empty; it must be a map",
                       "5:23: \"join\" is empty; it must be a map",
                       "6:33: \"declare\" is empty" + event } ) );
   for( auto text : { "", "# a plan\n" } ) {
      EXPECT_EQ( mistakes( text ), ( Lines{ "1:1: the plan is empty; it must be a map, {} for one "
                                            "with the default values" } ) );
   }
}

TEST( PlanMistakes, LeaveAndWithdrawCanOnlyBeTrue ) {
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: A, leave: false}\n"
                                "  - {at: 1, agent: A, stage: S, withdraw: yes}\n"
                                "  - {at: 1, agent: A, leave: }\n" ),
              ( Lines{ "3:30: \"leave\" is false; it must be true",
                       "4:43: \"withdraw\" is \"yes\"; it must be true",
                       "5:23: \"leave\" is empty; it must be true" } ) );
}

TEST( PlanMistakes, AnEntryDoesOneThing ) {
   EXPECT_EQ(
      timelineMistakes( "  - {at: 1, agent: A, stage: S, set: {}, withdraw: true}\n"
                        "  - {at: 1, agent: A}\n"
                        "  - {at: 1, leave: true, agent: A, enabled: true, join: {}}\n" ),
      ( Lines{ "3:42: \"withdraw\" in an entry that has \"set\" already; " + anOperation,
               "4:5: an entry that does nothing; " + anOperation,
               "5:36: \"enabled\" in an entry that has \"leave\" already; " + anOperation } ) );
}

TEST( PlanMistakes, AnEntryHasWhatItsOperationNeedsAndNothingElse ) {
   EXPECT_EQ( timelineMistakes( "  - {enabled: true}\n"
                                "  - {at: 1, leave: true}\n"
                                "  - {at: 1, agent: A, set: {}}\n"
                                "  - {at: 1, stage: S, declare: {}}\n"
                                "  - {at: 1, enabled: true, agent: A, stage: S}\n"
                                "  - {at: 1, agent: A, stage: S, leave: true}\n"
                                "  - {at: 2, agent: A, stage: S, join: {}}\n" ),
              ( Lines{ "3:5: an entry without \"at\"; it must say when, in seconds",
                       "4:5: an entry with \"leave\" but without \"agent\"; it needs both",
                       "5:5: an entry with \"set\" but without \"stage\"; it needs both",
                       "6:5: an entry with \"declare\" but without \"agent\"; it needs both",
                       "7:28: \"agent\" in an entry with \"enabled\"; they do not go together",
                       "7:38: \"stage\" in an entry with \"enabled\"; they do not go together",
                       "8:23: \"stage\" in an entry with \"leave\"; they do not go together",
                       "9:23: \"stage\" in an entry with \"join\"; they do not go together" } ) );
}

TEST( PlanMistakes, ASetTakesWhatAnEventTakesButBooleansForComplete ) {
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: A, stage: S, set: {complete: never}}\n"
                                "  - {at: 1, agent: A, stage: S, set: {dependency: [B]}}\n"
                                "  - {at: 1, agent: A, stage: S, set: {dependency: {B: 1}}}\n"
                                "  - {at: 1, agent: A, stage: S, set: {critical: null}}\n" ),
              ( Lines{ "3:49: \"complete\" is \"never\"; it must be true or false",
                       "4:51: \"dependency\" in \"set\" is a list; it must be a map",
                       "5:55: dependency \"B\" is 1; it must be true, false, or null to remove it",
                       "6:49: \"critical\" is null; it must be true or false" } ) );
}

TEST( PlanMistakes, EntriesAboutWhatIsNotThereAreFoundInOrderOfTime ) {
   EXPECT_EQ(
      timelineMistakes( "  - {at: 3, agent: B, stage: T, set: {}}\n"
                        "  - {at: 2, agent: B, join: {S: {}}}\n"
                        "  - {at: 1, agent: B, leave: true}\n"
                        "  - {at: 4, agent: A, join: {}}\n"
                        "  - {at: 4, agent: A, stage: S, declare: {}}\n"
                        "  - {at: 5, agent: A, stage: S, withdraw: true}\n"
                        "  - {at: 5, agent: A, stage: S, withdraw: true}\n" ),
      ( Lines{ "3:30: agent \"B\" has no event for stage \"T\" at 3; only an event that is "
               "there can be set or withdrawn",
               "5:20: agent \"B\" is not there at 1; only agents that are in the directory "
               "can leave, declare, withdraw or be set",
               "6:20: agent \"A\" is there already at 4; only an agent that is not in the "
               "directory can join",
               "7:30: agent \"A\" has an event for stage \"S\" already at 4; it can declare "
               "one only for a stage for which it has none",
               "9:30: agent \"A\" has no event for stage \"S\" at 5; only an event that is "
               "there can be set or withdrawn" } ) );
}

TEST( PlanMistakes, WhatFollowsFromAMistakeIsNotReported ) {
   // Each second entry would be right but for the mistake in the first.
   EXPECT_EQ( timelineMistakes( "  - {at: -1, agent: B, join: {S: {}}}\n"
                                "  - {at: 1, agent: B, stage: S, set: {}}\n" )
                 .size(),
              1U );
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: B, join: {S: {timeout: x}}}\n"
                                "  - {at: 2, agent: B, stage: S, set: {}}\n" )
                 .size(),
              1U );
   EXPECT_EQ( timelineMistakes( "  - {at: x, agent: A, leave: true}\n"
                                "  - {at: 2, agent: A, join: {}}\n" )
                 .size(),
              1U );
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: A, declare: {}}\n"
                                "  - {at: 2, agent: A, stage: T, set: {}}\n" )
                 .size(),
              1U );
   // This one was in order before, and still is not.
   EXPECT_EQ( timelineMistakes( "  - {at: 1, agent: A, leave: false}\n"
                                "  - {at: 2, agent: A, join: {}}\n" )
                 .size(),
              2U );
}

TEST( PlanMistakes, AllAreReportedInOrderOfTheFile ) {
   EXPECT_EQ( mistakes( "agents:\n"
                        "  A: {S: {timeout: -1, critical: maybe}}\n"
                        "  A: {}\n"
                        "extra: 1\n"
                        "timeline:\n"
                        "  - {at: 1, agent: Z, leave: true}\n"
                        "---\n"
                        "{}\n" ),
              ( Lines{ "2:20: \"timeout\" is -1; it must be " + aTimeout,
                       "2:34: \"critical\" is \"maybe\"; it must be true or false",
                       "3:3: key \"A\" stands twice in one map, first at 2:3; each key may stand "
                       "once",
                       "4:1: unknown key \"extra\" in the plan; allowed are agents, application, "
                       "enabled and timeline",
                       "6:20: agent \"Z\" is not there at 1; only agents that are in the directory "
                       "can leave, declare, withdraw or be set",
                       "7:1: a second document begins; a file holds one" } ) );
}

TEST( PlanMistakes, ASyntaxErrorIsReportedAlone ) {
   auto const found = mistakes( "agents: {A: {S: {timeout: -1}}}\nextra: [\n" );
   ASSERT_EQ( found.size(), 1U );
   EXPECT_EQ( found[ 0 ].compare( 0, 14, "3:1: not YAML:" ), 0 ) << found[ 0 ];
}

TEST( PlanMistakes, AMistakeThatIsUsedThroughAliasesIsReportedOnce ) {
   EXPECT_EQ( mistakes( "agents:\n  A: &a {S: {timeout: -1}}\n  B: *a\n  C: *a\n" ),
              ( Lines{ "2:23: \"timeout\" is -1; it must be " + aTimeout } ) );
}

TEST( PlanMistakes, AliasesThatUnfoldWithoutMeasureAreRefused ) {
   std::string text = "agents:\n  A: &a {";
   for( int i = 0; i < 2000; ++i )
      text += "S" + std::to_string( i ) + ": {}, ";
   text += "}\n";
   for( int i = 0; i < 2000; ++i )
      text += "  B" + std::to_string( i ) + ": *a\n";
   auto const found = mistakes( text );
   ASSERT_EQ( found.size(), 1U );
   EXPECT_NE(
      found[ 0 ].find( ": aliases unfold to more than 1000000 values; write fewer of them" ),
      std::string::npos );
}

TEST( PlanMistakes, AnAliasThatContainsItselfEndsInAMistake ) {
   EXPECT_FALSE( mistakes( "&a {agents: *a}\n" ).empty() );
   EXPECT_FALSE( mistakes( "agents: &a {A: *a}\n" ).empty() );
   EXPECT_FALSE( mistakes( "timeline: &a [*a]\n" ).empty() );
}

TEST( PlanMistakes, WhatIsShownOfAValueCannotSteerATerminalNorFillIt ) {
   auto const found = mistakes( "application: [\"\\e[2J\"]\nenabled: \"\\e[2J" +
                                std::string( 1000, 'x' ) + "\"\n\"\\e\": 1\n" );
   ASSERT_EQ( found.size(), 3U );
   for( auto const & line : found ) {
      EXPECT_EQ( line.find( '\x1b' ), std::string::npos );
      EXPECT_LT( line.size(), 200U );
   }
}

} // namespace
