// What readers see of an account store while writers change it and are killed.
#include "brenthaven/store/sobjectdb.h"

#include <utility>

#include "tests/history/history.h"
#include "tests/support/scratch.h"

namespace {

enum { kType, kLeft, kRight, kSerial, kFiller };
constexpr _Attribute kTable[] = {
    {"Type", kAttributeIndexed},   {"Left", 0}, {"Right", 0}, {"Serial", kAttributeIndexed},
    {"Filler", kAttributeIndexed}, {nullptr, 0}};
constexpr int kCounterType = 1;
constexpr int kFillerType = 2;
constexpr int kFillers = 30;  // for each counter, so that its pages split, empty and grow long values

SString NameOf(int counter) { return "counter " + MakeSString(counter); }
SString SerialOf(int counter, long value) { return NameOf(counter) + " at " + MakeSString(value); }

class StoreHistory : public ScratchSpool {
protected:
  static long Pick(std::mt19937 &random, long below) { return static_cast<long>(random() % below); }

  // One section: a counter goes up by one in both attributes and in the index, beside others that come and go.
  bool Raise(SObjectDB &store, std::mt19937 &random) {
    int const counter = static_cast<int>(Pick(random, SHistory::kCounters));
    SString const name = NameOf(counter);
    ++history.Log(counter).begun;
    store.LockWrite();
    long const value = store.GetStringAttrib(kLeft, name).AsLong() + 1;
    SString const padding('x', static_cast<int>(Pick(random, Pick(random, 50) == 0 ? 40000 : 1500)));
    bool isDone = store.SetAttrib(kLeft, name, {MakeSString(value) + " " + padding}, 0) &&
                  store.SetAttrib(kSerial, name, {SerialOf(counter, value)}, 0);
    SString const filler = name + " filler " + MakeSString(Pick(random, kFillers));
    if (Pick(random, 3) == 0)
      store.Delete(filler);
    else
      isDone = isDone && store.Create(filler, kFillerType) &&
               store.SetAttrib(kFiller, filler, {std::as_const(padding).Segment(0, 5000), "end"}, 0);
    isDone = isDone && store.SetAttrib(kRight, name, {MakeSString(value)}, 0);
    store.UnlockWrite();
    if (!isDone || store.WriteFailed()) return history.Fault("a section of counter %d failed", counter);
    ++history.Log(counter).ended;
    return true;
  }

  // One read section over a counter, against what its writers knew before and after.
  bool Look(SObjectDB &store, int counter, long &last) {
    SString const name = NameOf(counter);
    long const least = history.Log(counter).ended;
    store.LockRead();
    SString const left = store.GetStringAttrib(kLeft, name);
    SString const right = store.GetStringAttrib(kRight, name);
    SStringList serials, names;
    store.ListByAttrib(kSerial, name + " at ", &serials, &names);
    int const type = store.GetType(name);
    int const counters = store.CountByType(kCounterType);
    store.UnlockRead();
    long const most = history.Log(counter).begun;
    long const value = left.AsLong();
    if (store.ReadFailed()) return history.Fault("counter %d could not be read", counter);
    if (type != kCounterType || counters != SHistory::kCounters || left.Length() == 0)
      return history.Fault("counter %d was absent: type %d, %d of its type", counter, type, counters);
    if (value != right.AsLong() || serials.Length() != 1 || serials.Get(0) != SerialOf(counter, value) ||
        names.Get(0) != name)
      return history.Fault("counter %d was torn: %ld, %ld, index %s", counter, value, right.AsLong(),
                           static_cast<char const *>(serials.Join(",")));
    if (value < last) return history.Fault("counter %d went back from %ld to %ld", counter, last, value);
    if (value < least || value > most)
      return history.Fault("counter %d read as %ld: %ld sections had ended before, %ld had begun", counter, value,
                           least, most);
    last = value;
    return true;
  }

  SHistory history;
};

TEST_F(StoreHistory, NoUpdateIsLostTornUndoneOrUnseen) {
  {
    SObjectDB store("T.", 0, kTable);
    store.LockWrite();
    for (int counter = 0; counter < SHistory::kCounters; ++counter) {
      SString const name = NameOf(counter);
      ASSERT_TRUE(store.Create(name, kCounterType) && store.SetAttrib(kLeft, name, {"0"}, 0) &&
                  store.SetAttrib(kRight, name, {"0"}, 0) && store.SetAttrib(kSerial, name, {SerialOf(counter, 0)}, 0));
    }
    store.UnlockWrite();
  }
  auto const write = [this](std::mt19937 &random) {
    SObjectDB store("T.", 0, kTable);
    while (!history.IsOver() && Raise(store, random)) {
    }
  };
  auto const read = [this](std::mt19937 &random) {
    SObjectDB store("T.", 0, kTable);
    long last[SHistory::kCounters] = {};
    for (bool isGood = true; isGood && history.TakeRead();) {
      int const counter = static_cast<int>(Pick(random, SHistory::kCounters));
      isGood = Look(store, counter, last[counter]);
    }
  };
  history.Run(FromEnvironment("BRENTHAVEN_HISTORY_READS", 4000), write, read);

  SObjectDB store("T.", 0, kTable);
  for (int counter = 0; counter < SHistory::kCounters; ++counter) {
    long last = 0;
    EXPECT_TRUE(Look(store, counter, last)) << history.FaultText();
  }
  EXPECT_GT(history.Kills(), 0);
}

}  // namespace
