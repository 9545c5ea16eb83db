"""Tests that the installed component "python" has the whole module and nothing else."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import qnm

SOURCE = pathlib.Path(__file__).parents[1] / "qnm"


class Install(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        subprocess.run(
            [os.environ["QNM_CMAKE"], "--install", os.environ["QNM_BUILD"]]
            + ["--component", "python", "--prefix", "/usr"],
            env=os.environ | {"DESTDIR": directory.name},
            stdout=subprocess.DEVNULL,
            check=True,
        )
        self.packages = next((self.root / "usr/lib").glob("python3*/dist-packages"))

    def test_it_has_all_files_of_the_module_and_its_description(self) -> None:
        installed = [path for path in self.root.rglob("*") if path.is_file()]
        module = {path.name for path in installed if path.parent == self.packages / "qnm"}
        self.assertEqual(module, {path.name for path in SOURCE.iterdir() if path.is_file()})
        self.assertEqual(len(installed) - len(module), 1)

    def test_python_imports_it_and_knows_its_version(self) -> None:
        program = (
            "import importlib.metadata, qnm; "
            "print(qnm.__file__, qnm.__version__, importlib.metadata.version('qnm'))"
        )
        done = subprocess.run(
            [sys.executable, "-c", program],
            env=os.environ | {"PYTHONPATH": str(self.packages)},
            capture_output=True,
            text=True,
        )
        path, *versions = done.stdout.split() or ["", done.stderr]
        self.assertEqual(path, f"{self.packages}/qnm/__init__.py")
        self.assertRegex(versions[0], r"^\d+\.\d+\.\d+$")
        self.assertEqual(versions, [qnm.__version__] * 2)


if __name__ == "__main__":
    unittest.main()
