"""Tests that the types, constants and calls of the module are those of qnm.h."""

import ctypes
import enum
import inspect
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import qnm
from qnm import _library

HEADER = pathlib.Path(os.environ["QNM_HEADER"])

RECORDS = {
    "qnm_com_dev_t": qnm.ComDev,
    "qnm_com_port_t": qnm.ComPort,
    "qnm_up_port_t": qnm.ComPort,
    "qnm_down_port_t": qnm.DownPort,
    "qnm_qnsv_t": qnm.Qnsv,
    "qnm_qnio_t": qnm.Qnio,
    "qnm_retry_t": qnm.Retry,
}
ENUMERATIONS: dict[str, type[enum.IntEnum] | type[enum.IntFlag]] = {
    "QNM_API_": qnm.ResultCode,
    "QNM_LOGLVL_": qnm.LogLevel,
    "QNM_EVT_": qnm.EventType,
    "QNM_FLAG_": qnm.Flag,
}
# How many constants there are; not constants themselves.
COUNTS = {"QNM_API_CODE_MAX", "QNM_EVT_MAX"}

# Types of arguments and results, without const.
TYPES = {
    "void": None,
    "int": ctypes.c_int,
    "qnm_api_code_t": ctypes.c_int,
    "qnm_log_level_t": ctypes.c_int,
    "qnm_evt_type_t": ctypes.c_int,
    "unsigned char": ctypes.c_ubyte,
    "uint16_t": ctypes.c_uint16,
    "uint32_t": ctypes.c_uint32,
    "uint64_t": ctypes.c_uint64,
    "char*": ctypes.c_char_p,
    "void*": ctypes.c_void_p,
    "qnm_cptr_t": ctypes.c_void_p,
    "uint32_t*": ctypes.POINTER(ctypes.c_uint32),
    "uint64_t*": ctypes.POINTER(ctypes.c_uint64),
    "uint64_t**": ctypes.POINTER(ctypes.POINTER(ctypes.c_uint64)),
    "size_t*": ctypes.POINTER(ctypes.c_size_t),
    "qnm_qnsv_t*": ctypes.POINTER(qnm.Qnsv),
    "qnm_qnio_t*": ctypes.POINTER(qnm.Qnio),
    "qnm_retry_t*": ctypes.POINTER(qnm.Retry),
    "qnm_cbfunc_t": _library.Callback,
    "qnm_cbid_t": ctypes.c_void_p,
    "qnm_cbid_t*": ctypes.POINTER(ctypes.c_void_p),
    "...": ctypes.c_char_p,  # the argument of "%s", the only format in use
}


def declarations() -> str:
    """The header without comments and preprocessor lines."""
    text = re.sub(r"/\*.*?\*/", "", HEADER.read_text(), flags=re.DOTALL)
    return re.sub(r"^#.*(\\\n.*)*$", "", text, flags=re.MULTILINE)


def functions() -> dict[str, tuple[str, str]]:
    """The functions in the header by name: the type of the result, and the arguments as text."""
    found = re.findall(r"^([\w ]+?)\s+\*?(qnm_\w+)\(([^)]*)\)", declarations(), flags=re.MULTILINE)
    return {name: (result, arguments) for result, name, arguments in found}


def type_of(argument: str) -> str:
    """The type of an argument: without const and the name."""
    argument = " ".join(argument.replace("const ", "").split())
    return argument if argument in TYPES else argument.rsplit(" ", 1)[0].strip()


def run_program(body: str) -> str:
    """Compiles and runs a C program with this body, and returns what it prints."""
    source = f"#include <stdio.h>\n#include <qnm.h>\nint main(void) {{\n{body}\nreturn 0;\n}}\n"
    with tempfile.TemporaryDirectory() as directory:
        program = f"{directory}/probe"
        compiler = [os.environ.get("CC", "cc"), "-std=c99", f"-I{HEADER.parent}", "-xc", "-"]
        subprocess.run([*compiler, "-o", program], input=source, text=True, check=True)
        return subprocess.run([program], capture_output=True, text=True, check=True).stdout


def run_probe(body: str) -> dict[str, int]:
    """Runs a C program that prints a name and a number on each line."""
    lines = run_program(body).splitlines()
    return {name: int(number) for name, number in (line.split() for line in lines)}


def show(name: str, expression: str) -> str:
    return f'printf("{name} %ld\\n", (long)({expression}));'


class Layout(unittest.TestCase):
    def test_records_lie_in_memory_as_in_c(self) -> None:
        body, expected = [], {}
        for c_name, record in RECORDS.items():
            body.append(show(c_name, f"sizeof({c_name})"))
            expected[c_name] = ctypes.sizeof(record)
            for field, *_ in record._fields_:
                name = f"{c_name}.{field}"
                body.append(show(f"{name}.at", f"offsetof({c_name}, {field})"))
                body.append(show(f"{name}.size", f"sizeof((({c_name}*)0)->{field})"))
                expected[f"{name}.at"] = getattr(record, field).offset
                expected[f"{name}.size"] = getattr(record, field).size
        self.assertEqual(run_probe("\n".join(body)), expected)

    def test_no_field_of_a_record_is_missing(self) -> None:
        structures = re.findall(r"typedef struct (\w+) \{(.*?)\} ([\w, ]+);", declarations(), re.S)
        for _, body, names in structures:
            fields = re.findall(r"(\w+)(?:\[\w+\])*;", body)
            for name in names.split(", "):
                self.assertEqual(fields, [field[0] for field in RECORDS[name]._fields_], name)
        self.assertEqual({n for *_, names in structures for n in names.split(", ")}, set(RECORDS))


class Constants(unittest.TestCase):
    def test_constants_have_the_names_and_values_of_the_header(self) -> None:
        names = set(re.findall(r"^\s+(QNM_\w+) = ", declarations(), flags=re.MULTILINE)) - COUNTS
        in_c = run_probe("\n".join(show(name, name) for name in names))
        in_python = {
            prefix + member.name: member.value
            for prefix, enumeration in ENUMERATIONS.items()
            for member in enumeration
            if member is not qnm.Flag.NONE
        }
        self.assertEqual(in_python, in_c)

    def test_every_failure_has_its_exception(self) -> None:
        failures = [code for code in qnm.ResultCode if code is not qnm.ResultCode.SUCCESS]
        exceptions = {error.code: error for error in qnm.Error.__subclasses__()}
        self.assertEqual(sorted(exceptions), failures)
        for code, error in exceptions.items():
            self.assertIn(error.__name__, qnm.__dict__)
            self.assertEqual(str(error("qnm_call")), f"qnm_call: {error.meaning}")
            self.assertIs(_library.error_of("qnm_call", code).code, code)


class Version(unittest.TestCase):
    def test_the_module_has_that_of_the_header(self) -> None:
        self.assertEqual(qnm.__version__, run_program("puts(QNM_VERSION);").strip())


class Texts(unittest.TestCase):
    """The library exports no symbols for inline functions, so the module has their texts itself."""

    def test_event_types_are_named_alike(self) -> None:
        body = "\n".join(f"puts(qnm_event_name({event:d}));" for event in qnm.EventType)
        self.assertEqual(run_program(body).splitlines(), [event.name for event in qnm.EventType])

    def test_exceptions_mean_what_their_codes_mean(self) -> None:
        errors = sorted(qnm.Error.__subclasses__(), key=lambda error: error.code)
        body = "\n".join(f"puts(qnm_retcode_text({error.code:d}));" for error in errors)
        texts = run_program(body).splitlines()
        self.assertEqual(texts, [error.meaning.partition(";")[0] for error in errors])

    def test_there_are_no_other_inline_functions(self) -> None:
        found = re.findall(r"^static inline .*\b(qnm_\w+)\(", declarations(), flags=re.MULTILINE)
        self.assertEqual(found, ["qnm_retcode_text", "qnm_event_name"])


class Calls(unittest.TestCase):
    def test_every_call_is_declared_as_in_the_header(self) -> None:
        in_c = {
            name: (TYPES[result], *(TYPES[type_of(a)] for a in arguments.split(",") if a != "void"))
            for name, (result, arguments) in functions().items()
        }
        self.assertGreater(len(in_c), 40)
        self.assertEqual(_library.PROTOTYPES, in_c)

    def test_every_call_is_wrapped_and_described(self) -> None:
        for name in set(functions()) - {"qnm_free_idlist"}:
            function = getattr(qnm, name.removeprefix("qnm_"))
            self.assertTrue(callable(function), name)
            self.assertTrue(function.__doc__, name)

    def test_every_class_is_described_and_so_are_its_members(self) -> None:
        classes = [value for name in qnm.__all__ if isinstance(value := getattr(qnm, name), type)]
        self.assertGreater(len(classes), 20)
        for described in classes:
            text = vars(described)["__doc__"]  # not inherited; Python 3.13 strips its indentation
            self.assertTrue(text, described)
            text = inspect.cleandoc(text)
            fields = vars(described).get("__annotations__", {})
            for member in (*fields, *getattr(described, "__members__", {})):
                if "_pad" not in member:
                    self.assertRegex(text, rf"(?m)^{member}  +\w", described)


if __name__ == "__main__":
    unittest.main()
