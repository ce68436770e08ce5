"""The engine's test files (.phpt), and how one is made to run through php-cgi."""
import glob
import re

SECTION = re.compile(rb"^--([_A-Z]+)--", re.MULTILINE)
REQUEST = {b"GET", b"POST", b"GZIP_POST", b"DEFLATE_POST", b"POST_RAW", b"PUT", b"COOKIE", b"EXPECTHEADERS"}
SCRIPTS = {b"FILE": "", b"FILEEOF": "", b"FILE_EXTERNAL": "", b"REDIRECTTEST": "", b"SKIPIF": "skip.", b"CLEAN": "clean."}
BODY = (b"FILE", b"FILEEOF", b"FILE_EXTERNAL", b"REDIRECTTEST")

# what needs a database server, and where PDO's own tests are
MYSQL = ("ext/mysql/", "ext/mysqli/", "ext/pdo_mysql/")
PGSQL = ("ext/pgsql/", "ext/pdo_pgsql/")
PDO = "ext/pdo/tests"


def find(source, folders):
    """Tests below these folders, or the tests that are named instead of a folder, relative to the source; "*" stands for any
    part of a name."""
    found = set()
    for folder in folders:
        for path in glob.glob(folder, root_dir=source):
            files = glob.glob(f"{path}/**/*.phpt", root_dir=source, recursive=True)
            found |= {path} if path.endswith(".phpt") else set(files)
    return sorted(found)


def read(path):
    """[(section, body)]; a body begins with the end of its section's line."""
    with open(path, "rb") as handle:
        parts = SECTION.split(handle.read())
    return list(zip(parts[1::2], parts[2::2]))


def starts_engine(sections):
    """A child would inherit the variables of its parent's request, and php-cgi run that script again, without end."""
    return any(b"PHP_BINARY" in body for _, body in sections)


def uses_cgi(sections):
    """The runner takes php-cgi for tests that describe a request."""
    return any(name in REQUEST and body.partition(b"\n")[2] for name, body in sections)


def adapt(path, uri, everything_through_cgi):
    """Gives a test an empty request, if it is to have one and can, and every test with a request a URI, without which the
    agent leaves it alone."""
    sections = read(path)
    if everything_through_cgi and not uses_cgi(sections) and not starts_engine(sections):
        at = next((i for i, (name, _) in enumerate(sections) if name in BODY), len(sections))
        sections.insert(at, (b"GET", b"\n\n"))
    if not uses_cgi(sections):
        return
    setting = b"\nSCRIPT_NAME=" + uri.encode()
    at = next((i for i, (name, _) in enumerate(sections) if name == b"ENV"), None)
    if at is None:
        sections.insert(1, (b"ENV", setting + b"\n"))
    else:
        sections[at] = (b"ENV", setting + sections[at][1])
    with open(path, "wb") as handle:
        handle.write(b"".join(b"--" + name + b"--" + body for name, body in sections))


def background_name(script):
    """The name under which the agent reports a script of the command line."""
    return "BackgroundAction/Script/" + re.sub(r"\d{2,}", "*", script.lstrip("/").replace("/", "%2F"))


def expected_actions(path, seen_path, uri):
    """The actions that an adapted test is reported as; `seen_path` is its path as the engine sees it."""
    sections = read(path)
    if uses_cgi(sections):
        return [uri]                                   # its other scripts run without a request, and so without a URI
    stem = seen_path[:-len("phpt")]
    return [background_name(f"{stem}{SCRIPTS[name]}php") for name, body in sections if name in SCRIPTS and body.strip()]
