"""The Ansible collection of this tree, as it is and not installed: for Python's import and for Ansible's."""
import pathlib
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2] / "fleet/ansible"


def place(directory):
    """Makes the collection known to this program; the result is what ANSIBLE_COLLECTIONS_PATH has to be."""
    parent = pathlib.Path(directory, "ansible_collections", "zendra")
    parent.mkdir(parents=True)
    (parent / "devices").symlink_to(SOURCE)
    sys.path.insert(0, str(directory))
    return str(directory)
