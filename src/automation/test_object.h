// Korvane.TestObject: a class that exists only to exercise the automation layer
// from tests (C++, C and the script host). It is not part of the catalogue a
// host sees until a test registers it, through RegisterTestClasses here or
// kv_register_test_class in the C ABI.
//
// Korvane.TestObject has a property of every common variant type, methods
// with optional arguments, a collection of Korvane.TestItem (Item from 1,
// Count, _NewEnum), and events OnTick(Index, Proceed), OnDone(Ticks) and
// OnNote(Text, Item, Proceed).
#pragma once

#include "automation/catalogue.h"

namespace kv::automation {

HRESULT RegisterTestClasses();
extern const ClassInfo kTestObjectClass;
extern const ClassInfo kTestItemClass;

// DISPIDs of the test class's events.
enum : DISPID { kTestOnTick = 1, kTestOnDone = 2, kTestOnNote = 3 };

}  // namespace kv::automation
