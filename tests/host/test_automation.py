"""The script host against Korvane.TestObject, written as a user's script would be."""

import datetime
import decimal
import gc

import pytest

import korvane


def test_create_by_name_any_case_and_version():
    korvane.register_test_class()
    for name in ("Korvane.TestObject", "korvane.testobject", "Korvane.TestObject.1"):
        assert repr(korvane.CreateObject(name)) == "<korvane ITestObject object>"
    with pytest.raises(korvane.Error) as e:
        korvane.CreateObject("Korvane.Nothing")
    assert "Korvane.Nothing" in str(e.value)
    assert e.value.hresult == -2147221005  # CO_E_CLASSSTRING


@pytest.mark.parametrize("name, value, expected", [
    ("Text", "héllo wörld \U0001F600", "héllo wörld \U0001F600"),
    ("Text", "", ""),
    ("Text", 42, "42"),
    ("Long", 7, 7),
    ("Long", "5", 5),
    ("Long", 5.0, 5),
    ("Long", 2.5, 2),          # rounds half to even
    ("Long", True, -1),
    ("Short", -32768, -32768),
    ("Byte", 255, 255),
    ("Double", 0.1, 0.1),
    ("Double", "2.5", 2.5),
    ("Single", 0.5, 0.5),
    ("Flag", True, True),
    ("Flag", -1, True),
    ("Flag", 0, False),
    ("Flag", "False", False),
    ("When", datetime.datetime(2023, 3, 15, 18, 30, 5), datetime.datetime(2023, 3, 15, 18, 30, 5)),
    ("When", datetime.date(1899, 12, 29), datetime.datetime(1899, 12, 29)),
    ("When", datetime.datetime(1899, 12, 29, 6, 0), datetime.datetime(1899, 12, 29, 6, 0)),
    ("When", "2024-02-29", datetime.datetime(2024, 2, 29)),
    ("Money", decimal.Decimal("12.3456"), decimal.Decimal("12.3456")),
    ("Money", 3, decimal.Decimal(3)),
    ("Value", None, None),
    ("Value", "x", "x"),
    ("Value", 2**40, 2**40),
    ("Value", [1, "two", [3.0]], [1, "two", [3.0]]),
    ("Data", b"\x00\xff binary", b"\x00\xff binary"),
    ("Data", bytearray(b"ab"), b"ab"),
    ("Data", b"", b""),
])
def test_properties_of_every_type(obj, name, value, expected):
    setattr(obj, name, value)
    got = getattr(obj, name)
    assert got == expected
    assert type(got) is type(expected)


@pytest.mark.parametrize("name, value, error", [
    ("Long", "five", korvane.TypeMismatchError),
    ("Byte", 256, korvane.TypeMismatchError),
    ("Short", 40000, korvane.TypeMismatchError),
    ("When", "someday", korvane.TypeMismatchError),
    ("Count", 3, AttributeError),
    ("NoSuchThing", 1, korvane.UnknownNameError),
])
def test_bad_puts_raise_clear_errors(obj, name, value, error):
    with pytest.raises(error) as e:
        setattr(obj, name, value)
    assert str(e.value)


def test_methods_with_and_without_optional_arguments(obj):
    assert obj.Add(1) == 11
    assert obj.Add(1, 2) == 3
    assert obj.add(A=1, B=5) == 6
    assert obj.ADD(1, b=4) == 5
    assert obj.Join("a") == "a"
    assert obj.Join("a", "b") == "a-b"
    assert obj.Join("a", Sep="+", B="b") == "a+b"
    assert obj.Join("a", korvane.Missing, "+") == "a"  # B left out: empty, so no separator
    assert obj.Describe() == "missing"
    assert obj.Describe(1) == "vt 3"
    assert obj.Describe(None) == "vt 0"
    assert obj.Toggle() is True
    assert obj.Toggle(False) is False and obj.Flag is False


@pytest.mark.parametrize("call, error, text", [
    (lambda o: o.Add(), korvane.ArgumentCountError, "0 given, 1 to 2 expected"),
    (lambda o: o.Add(1, 2, 3), korvane.ArgumentCountError, "3 given, 1 to 2 expected"),
    (lambda o: o.Add(B=2), korvane.ArgumentCountError, "(A) of 'Add' is not optional"),
    (lambda o: o.Add(1, C=2), korvane.ArgumentCountError, "no parameter named 'C'"),
    (lambda o: o.Add(1, A=2), korvane.ArgumentCountError, "given twice"),
    (lambda o: o.Add("one"), korvane.TypeMismatchError, "argument 1 (A) of 'Add'"),
    (lambda o: o.Add({}), TypeError, "cannot pass a dict"),
    (lambda o: o.Frobnicate(), korvane.UnknownNameError, "no member named 'Frobnicate'"),
    (lambda o: o.Fail("it broke"), korvane.ObjectError, "it broke"),
])
def test_misuse_raises_with_a_message(obj, call, error, text):
    with pytest.raises(error) as e:
        call(obj)
    assert text in str(e.value)


def test_unknown_names_are_attribute_errors(obj):
    assert not hasattr(obj, "Nope")
    assert getattr(obj, "Nope", "default") == "default"
    with pytest.raises(korvane.ObjectError) as e:
        obj.Fail("x")
    assert e.value.scode == -2147467259  # E_FAIL, the member's own code


def test_objects_pass_in_and_out(obj):
    item = obj.AddItem("first")
    assert item.Name == "first"
    obj.Child = item
    assert obj.Child == item
    assert obj.IsSame(obj) and not obj.IsSame(item)
    obj.Child = None
    assert obj.Child is None
    assert obj.Echo(item) == item
    assert obj.Echo(None) is None


def test_collections_have_len_iteration_and_items(obj):
    for name in ("a", "b", "c"):
        obj.AddItem(name)
    assert len(obj) == 3
    assert [i.Name for i in obj] == ["a", "b", "c"]
    assert obj[2].Name == "b"
    assert obj.Item(3).Name == "c"
    with pytest.raises(korvane.ObjectError) as e:
        obj.Item(0)
    assert e.value.scode == -2147024809  # E_INVALIDARG: Item counts from 1
    with pytest.raises(korvane.ObjectError) as e:
        obj[4]
    assert e.value.scode == -2147467259
    with pytest.raises(TypeError):
        len(obj[1])


def test_arrays_keep_values_and_lower_bounds(obj):
    assert obj.Range(3) == [0, 1, 2]
    assert obj.Range(2, Lower=10) == [10, 11]
    assert obj.Sum([1, "2", 3.5, True]) == 5.5
    assert obj.Sum(()) == 0
    with pytest.raises(korvane.ObjectError):
        obj.Sum(5)


def test_type_information_lists_members(obj):
    names = dir(obj)
    assert {"Add", "Join", "Text", "Item", "Count", "Fire"} <= set(names)


class Recorder:
    def __init__(self, veto_at=None):
        self.heard = []
        self.veto_at = veto_at

    def OnTick(self, Index, Proceed):
        self.heard.append(("tick", Index, Proceed.value))
        if Index == self.veto_at:
            Proceed.value = False

    def OnDone(self, Ticks):
        self.heard.append(("done", Ticks))


def test_events_reach_the_handler(obj):
    r = Recorder()
    korvane.WithEvents(obj, r)
    assert obj.Fire(2) is True
    assert r.heard == [("tick", 1, True), ("tick", 2, True), ("done", 2)]


def test_proceed_false_cancels_and_is_shared(obj):
    first, second = Recorder(veto_at=2), Recorder()
    korvane.WithEvents(obj, first)
    korvane.WithEvents(obj, second)
    assert obj.Fire(5) is False
    assert obj.LastTicks == 2
    # The second handler saw the first one's answer on tick 2.
    assert second.heard == [("tick", 1, True), ("tick", 2, False), ("done", 2)]


def test_returning_false_also_answers_proceed(obj):
    class Quitter:
        def OnTick(self, Index, Proceed):
            return Index < 3

    korvane.WithEvents(obj, Quitter())
    assert obj.Fire(10) is False
    assert obj.LastTicks == 3


def test_event_arguments_convert_and_missing_handlers_are_skipped(obj):
    notes = []

    class Notes:
        def OnNote(self, Text, Item, Proceed):
            notes.append((Text, Item.Name if Item else None))

    korvane.WithEvents(obj, Notes())
    assert obj.Notify("no items") is True
    obj.AddItem("it")
    assert obj.Notify("one item") is True
    assert obj.Fire(1) is True  # no OnTick or OnDone on this handler
    assert notes == [("no items", None), ("one item", "it")]


def test_closing_a_connection_stops_events(obj):
    r = Recorder()
    with korvane.WithEvents(obj, r):
        obj.Fire(1)
    obj.Fire(1)
    assert len(r.heard) == 2


def test_a_failing_handler_does_not_break_the_call(obj, capsys):
    class Broken:
        def OnTick(self, Index, Proceed):
            raise RuntimeError("handler bug")

    korvane.WithEvents(obj, Broken())
    assert obj.Fire(1) is True
    assert "handler bug" in capsys.readouterr().err


def test_references_are_released():
    korvane.register_test_class()
    gc.collect()
    before = korvane.live_objects()
    o = korvane.CreateObject("Korvane.TestObject")
    items = [o.AddItem(str(i)) for i in range(3)]
    o.Child = items[0]
    korvane.WithEvents(o, Recorder())
    o.Value = [items[1], o]  # an array holding objects, one of them itself... then dropped
    o.Value = None
    assert korvane.live_objects() > before
    del o, items
    gc.collect()
    assert korvane.live_objects() == before

