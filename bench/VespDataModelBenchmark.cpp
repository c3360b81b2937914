// Costs of the data model's hot operations: converting a fully populated platform event and a
// reminder into records, and encoding and decoding an occurrence identifier.
#include <benchmark/benchmark.h>

#include "Vesp/VespEventInstance.h"
#include "Vesp/VespEventInstanceIdentifier.h"
#include "Vesp/VespReminder.h"
#include "tests/support/PlatformObjects.h"

namespace {

using namespace vesp::testing;

// 10 attendees, 5 alarms, 2 recurrence rules with every list present.
std::shared_ptr<vesp::memory::MemoryEvent> populatedEvent() {
  auto fields = fullEventFields();
  fields.item.attendees.emplace();
  for (int i = 0; i < 10; ++i) fields.item.attendees->push_back(makeParticipant("Attendee " + std::to_string(i)));
  fields.item.alarms.emplace();
  for (int i = 0; i < 5; ++i) fields.item.alarms->push_back(makeAlarm(-300.0 * (i + 1)));
  fields.item.recurrenceRules = std::vector<std::shared_ptr<vesp::platform::EKRecurrenceRule>>{makeRule(), makeRule()};
  return makeEvent(fields);
}

void convertEvent(benchmark::State& state) {
  auto event = populatedEvent();
  for (auto _ : state) {
    vesp::VespEventInstance record(*event);
    benchmark::DoNotOptimize(record);
  }
}
BENCHMARK(convertEvent);

void convertReminder(benchmark::State& state) {
  auto reminder = makeReminder();
  for (auto _ : state) {
    vesp::VespReminder record(*reminder);
    benchmark::DoNotOptimize(record);
  }
}
BENCHMARK(convertReminder);

void encodeIdentifier(benchmark::State& state) {
  vesp::VespJSONEncoder encoder;
  auto identifier = vesp::VespEventInstanceIdentifier::withOccurrenceDate("E1-4F2A-9C1B", vesp::platform::Date(694224000.5));
  for (auto _ : state) benchmark::DoNotOptimize(encoder.encode(identifier));
}
BENCHMARK(encodeIdentifier);

void decodeIdentifier(benchmark::State& state) {
  vesp::VespJSONDecoder decoder;
  std::string json = vesp::VespJSONEncoder().encode(
      vesp::VespEventInstanceIdentifier::withOccurrenceDate("E1-4F2A-9C1B", vesp::platform::Date(694224000.5)));
  for (auto _ : state) benchmark::DoNotOptimize(decoder.decode<vesp::VespEventInstanceIdentifier>(json));
}
BENCHMARK(decodeIdentifier);

}  // namespace

int main(int argc, char** argv) {
  // Measure the conversions, not the memory platform's log of what they read.
  vesp::memory::memoryReadLogging = false;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
