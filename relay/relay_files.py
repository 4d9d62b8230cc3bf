"""Files of the local relay's state directory, written so that no reader
ever sees one half-written.

The relay runs as its own account behind sshd, while root (the fixture, the
tests, an operator adding codes) writes into the same directory; whatever
root creates there is handed to the directory's owner.
"""

import contextlib
import os
import shutil
import tempfile


def own_like_dir(fd_or_path, directory):
    """Gives a file or directory created by root to `directory`'s owner, so
    that the relay processes that sshd starts as that account can use it."""
    if os.geteuid() != 0:
        return
    st = os.stat(directory)
    if isinstance(fd_or_path, int):
        os.fchown(fd_or_path, st.st_uid, st.st_gid)
    else:
        os.chown(fd_or_path, st.st_uid, st.st_gid)


def fsync_dir(directory):
    """Makes a rename inside `directory` durable."""
    fd = os.open(directory, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def write_atomically(path, data, mode=0o600):
    """Replaces `path` in one rename by a file holding `data` (bytes or
    text): a reader sees the old file or the whole new one, never a part."""
    directory = os.path.dirname(path) or "."
    fd, tmp = tempfile.mkstemp(dir=directory,
                               prefix="." + os.path.basename(path) + ".",
                               suffix=".tmp")
    try:
        os.fchmod(fd, mode)
        own_like_dir(fd, directory)
        with os.fdopen(fd, "wb") as f:
            f.write(data.encode("utf-8") if isinstance(data, str) else data)
            f.flush()
            os.fsync(f.fileno())
        os.replace(tmp, path)
    except BaseException:
        with contextlib.suppress(OSError):
            os.unlink(tmp)
        raise
    fsync_dir(directory)


def write_new_file(path, data, mode):
    """Creates `path` (which must not exist yet) holding `data`; for files
    inside a directory that publish_directory has not published yet."""
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC,
                 mode)
    with os.fdopen(fd, "wb") as f:
        os.fchmod(f.fileno(), mode)  # the umask may have taken bits away
        own_like_dir(f.fileno(), os.path.dirname(path))
        f.write(data.encode("utf-8") if isinstance(data, str) else data)
        f.flush()
        os.fsync(f.fileno())


def make_dir(path, mode):
    """mkdir -p for the state directory's own subdirectories."""
    parent = os.path.dirname(path)
    if not os.path.isdir(parent):
        make_dir(parent, mode)
    with contextlib.suppress(FileExistsError):
        os.mkdir(path, mode)
        os.chmod(path, mode)
        own_like_dir(path, parent)


@contextlib.contextmanager
def publish_directory(path, mode):
    """Yields a hidden temporary directory beside `path` to fill; when the
    block ends without an exception, renames it to `path` in one step.

    A set of files that belong together (an authority's key and
    certificate, an endpoint's credentials) thus appears whole or not at
    all, even if the process dies halfway.  Raises FileExistsError, and
    discards the new set, if `path` exists by then.
    """
    parent = os.path.dirname(path)
    tmp = tempfile.mkdtemp(dir=parent,
                           prefix="." + os.path.basename(path) + ".")
    try:
        os.chmod(tmp, mode)
        own_like_dir(tmp, parent)
        yield tmp
        fsync_dir(tmp)
        if os.path.lexists(path):
            raise FileExistsError(path)
        # rename(2) fails on an existing non-empty directory, so a racing
        # publisher cannot be overwritten between the check and here
        os.rename(tmp, path)
    except BaseException:
        shutil.rmtree(tmp, ignore_errors=True)
        raise
    fsync_dir(parent)
