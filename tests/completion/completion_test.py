#!/usr/bin/env python3
"""Completions as the shells make them, of the scripts that this build prints: bash and zsh at a terminal,
where a key is pressed and the line is looked at, fish by its own `complete -C`. Host entries have names
that would run a command in any shell that evaluates them; no shell does.
Usage: completion_test.py DIRECTORY-OF-AHS"""
import os
import pty
import select
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
from xml.sax.saxutils import quoteattr

BIN = os.path.abspath(sys.argv.pop(1))
PATIENCE = 60  # seconds; nothing here takes one
HOSTS = ["$(touch pwned)", "`touch pwned`", "a b", "it's", 'say "hi" twice', "back\\slash", "x;touch pwned", "Z\u00fcrich", "wow!",
         "plain", "~", "*", "&& touch pwned"]


class Place:
    """A home with profiles, an `ahs` on PATH, and a directory to be in."""

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="ahs-completion-")
        os.chmod(self.root, 0o755)
        self.work = os.path.join(self.root, "work")
        os.makedirs(os.path.join(self.work, "a directory"))
        open(os.path.join(self.work, "a file.xml"), "w").close()
        self.profiles(os.path.join(self.root, ".config/ahs/profiles"),
                      [(name, "gw%d.example.com:8443" % i) for i, name in enumerate(HOSTS)])
        self.profiles(os.path.join(self.root, "other place"), [("elsewhere", "[2001:db8::1]:8443")])
        # Installed like a package's files.
        self.scripts = {"bash": "share/bash-completion/completions/ahs", "zsh": "share/zsh/site-functions/_ahs",
                        "fish": "share/fish/vendor_completions.d/ahs.fish"}
        for shell, path in self.scripts.items():
            script = subprocess.run([BIN + "/ahs", "completion", shell], capture_output=True, check=True).stdout
            os.makedirs(os.path.dirname(self.path(path)))
            with open(self.path(path), "wb") as file:
                file.write(script)
        self.environment = {"HOME": self.root, "PATH": BIN + ":/usr/bin:/bin", "TERM": "dumb", "LC_ALL": "C.UTF-8",
                            "XDG_CONFIG_HOME": self.root + "/.config", "HISTFILE": "/dev/null",
                            "XDG_DATA_DIRS": self.root + "/share:/usr/share"}

    def path(self, name):
        return os.path.join(self.root, name)

    @staticmethod
    def profiles(directory, hosts):
        os.makedirs(directory, mode=0o755)
        path = os.path.join(directory, "p.xml")
        with open(path, "w", encoding="utf-8") as file:
            file.write('<profile version="1"><preferences><preference name="EnableAutomaticServerSelection" '
                       'value="true"/></preferences><hosts>')
            for name, address in hosts:
                file.write("<host name=%s address=%s/>" % (quoteattr(name), quoteattr(address)))
            file.write("</hosts></profile>")
        os.chmod(path, 0o644)

    def is_unharmed(self):
        return sorted(os.listdir(self.work)) == ["a directory", "a file.xml"] and \
            "pwned" not in os.listdir(self.root)

    def remove(self):
        shutil.rmtree(self.root)


class Terminal:
    """A shell at a terminal. What stands in the line is asked of the shell: it writes it to a file on a key."""

    def __init__(self, place, command, ready):
        self.place = place
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.chdir(place.work)
            os.execve(command[0], command, place.environment)
        self.seen = b""
        self.type(ready + "\n")
        self.until(lambda: b"<GO>" in self.seen)

    def type(self, text):
        os.write(self.fd, text.encode())

    def until(self, condition):
        deadline = time.monotonic() + PATIENCE
        while not condition():
            if time.monotonic() > deadline:
                raise AssertionError("the shell has shown %r" % self.seen)
            if select.select([self.fd], [], [], 0.02)[0]:
                self.seen += os.read(self.fd, 65536)

    def complete(self, line):
        """The line after it was typed and the completion key was pressed."""
        answer = self.place.path("line")
        if os.path.exists(answer):
            os.remove(answer)
        self.type("\x15" + line + "\t\x18\x07")
        self.until(lambda: os.path.exists(answer))
        with open(answer, encoding="utf-8") as file:
            return file.read()

    def end(self):
        os.kill(self.pid, 9)
        os.waitpid(self.pid, 0)
        os.close(self.fd)


# The shell's ready prompt differs from the prompt in an echoed line.
def bash(place, load):
    return Terminal(place, ["/bin/bash", "--norc", "--noprofile", "-i"],
                    "%s; write() { printf %%s \"$READLINE_LINE\" >%s/line.new; mv %s/line.new %s/line; }; "
                    "bind -x '\"\\C-x\\C-g\": write'; bind 'set bell-style none'; bind 'set enable-bracketed-paste off'; "
                    "PS1='<''GO>'" % ((load,) + (place.root,) * 3))


def zsh(place, before, after):
    setup = place.path("setup.zsh")
    with open(setup, "w", encoding="utf-8") as file:
        file.write("""
%(before)s
autoload -U compinit; compinit -u -D
%(after)s
unsetopt beep automenu autolist listbeep
PS1='<''GO>'
write() { print -rn -- "$BUFFER" >%(root)s/line.new; mv %(root)s/line.new %(root)s/line }
zle -N write
bindkey -e
bindkey '^X^G' write
bindkey '^U' kill-whole-line
bindkey '^I' complete-word
""" % {"root": place.root, "before": before, "after": after})
    return Terminal(place, ["/usr/bin/zsh", "-f", "-i"], "source " + setup)


class Shells(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.place = Place()
        # Where each shell finds an installed script.
        cls.terminals = {"bash": bash(cls.place, "source /usr/share/bash-completion/bash_completion"),
                         "zsh": zsh(cls.place, "fpath=(%s/share/zsh/site-functions $fpath)" % cls.place.root, "")}

    @classmethod
    def tearDownClass(cls):
        for terminal in cls.terminals.values():
            terminal.end()
        cls.place.remove()

    def tearDown(self):
        self.assertTrue(self.place.is_unharmed(), "a name has been run")

    def fish(self, line):
        """What fish offers for a line: texts, each with its description."""
        run = subprocess.run(["/usr/bin/fish", "-c", "complete -C $argv[1]", line],
                             capture_output=True, check=True, text=True, env=self.place.environment,
                             cwd=self.place.work, stdin=subprocess.DEVNULL, timeout=PATIENCE)
        self.assertEqual(run.stderr, "")
        return dict((text.split("\t") + [""])[:2] for text in run.stdout.splitlines())

    def becomes(self, line, completed, shells=("bash", "zsh")):
        for shell in shells:
            with self.subTest(shell=shell, line=line):
                # zsh continues the value after the equals sign.
                self.assertEqual(self.terminals[shell].complete(line).rstrip(" ="), completed)

    def test_commands_options_words_and_files(self):
        for line, completed in [
                ("ahs sel", "ahs select"),
                ("ahs profile ch", "ahs profile check"),
                ("ahs help pref", "ahs help preferences"),
                ("ahs select --glob", "ahs select --global-preferences"),
                ("ahs cache show --cac", "ahs cache show --cache-dir"),
                ("ahs select --cache-dir /tmp --expl", "ahs select --cache-dir /tmp --explain"),
                # A command is not offered another one's options.
                ("ahs cache path --expl", "ahs cache path --expl"),
                ("ahs select --reason proc", "ahs select --reason process-launch"),
                ("ahs select --reason=proc", "ahs select --reason=process-launch"),
                ("ahs completion f", "ahs completion fish"),
                ("ahs profile check a\\ f", "ahs profile check a\\ file.xml"),
                ("ahs select --cache-dir a", "ahs select --cache-dir a\\ directory/"),
                ("ahs select --cache-dir=a", "ahs select --cache-dir=a\\ directory/"),
                ("ahs select --html=a\\ f", "ahs select --html=a\\ file.xml"),
                ("ahs probe pl", "ahs probe plain"),
                ("ahs exec --tries 2 -- dpkg-arch", "ahs exec --tries 2 -- dpkg-architecture"),
                ("ahs watch --exec dpkg-arch", "ahs watch --exec dpkg-architecture"),
                ("ahs exec -- cat a\\ f", "ahs exec -- cat a\\ file.xml"),
                # Without a usable profile there is no message.
                ("ahs select --profiles /nowhere --last p", "ahs select --profiles /nowhere --last p"),
                # A colon separates words.
                ("ahs select gw10.example.com:8", "ahs select gw10.example.com:8443"),
                ("ahs select gw10.ex", "ahs select gw10.example.com:8443")]:
            self.becomes(line, completed)
        self.becomes("ahs select --profiles ~/other\\ place [2001:db",
                     "ahs select --profiles ~/other\\ place [2001:db8::1\\]:8443", ["bash"])

    def test_what_fish_offers(self):
        for line, offered in [
                ("ahs cache ", ["clear", "path", "show"]),
                ("ahs select --glob", ["--global-preferences"]),
                ("ahs cache path --expl", []),
                ("ahs completion ", ["bash", "fish", "zsh"]),
                ("ahs select --log-level ", ["error", "info", "off", "warning"]),
                ("ahs select --reason=proc", ["--reason=process-launch"]),
                ("ahs select --cache-dir a", ["a directory/"]),
                ("ahs select --last ", sorted(HOSTS)),
                ("ahs probe pl", ["plain"]),
                ("ahs select gw10", ["gw10.example.com:8443"]),
                ("ahs select --profiles /nowhere --last p", [])]:
            with self.subTest(line=line):
                self.assertEqual(sorted(self.fish(line)), offered)
        self.assertIn("Measure", self.fish("ahs sel")["select"])
        self.assertIn("a file.xml", self.fish("ahs profile check a"))
        self.assertIn("dpkg-architecture", self.fish("ahs exec --tries 2 -- dpkg-arch"))

    def test_names_of_host_entries_are_quoted_and_never_run(self):
        for typed, word in [
                ("pl", "plain"), ("a", "a\\ b"), ("a\\ ", "a\\ b"), ("it", "it\\'s"),
                ("say", 'say\\ \\"hi\\"\\ twice'), ("bac", "back\\\\slash"),
                ("x", "x\\;touch\\ pwned"), ("wow", "wow\\!"), ("Z", "Z\u00fcrich"),
                ("\\$", "\\$\\(touch\\ pwned\\)"), ("\\`", "\\`touch\\ pwned\\`"),
                ("'$", "'$(touch pwned)'"), ("\\~", "\\~"), ("\\*", "\\*"),
                ("\\&", "\\&\\&\\ touch\\ pwned"), ("'it", "'it'\\''s'"),
                ('"say', '"say \\"hi\\" twice"'), ('"\\$', '"\\$(touch pwned)"')]:
            self.becomes("ahs select --last " + typed, "ahs select --last " + word)

    def test_what_was_typed_is_not_run_either(self):
        for line in ['ahs select --last $(touch pwned)', 'ahs select --last "$(touch pwned)', 'ahs select --last `touch pwned`',
                     'ahs select --profiles "$(touch pwned)" --last p', 'ahs select --profiles `touch pwned` --last p']:
            for terminal in self.terminals.values():
                terminal.complete(line)
            self.fish(line)

    def test_the_profiles_that_the_line_names(self):
        for other in ("~/other\\ place", "'%s'" % self.place.path("other place"),
                      '"%s"' % self.place.path("other place")):
            self.becomes("ahs select --profiles %s --last el" % other,
                         "ahs select --profiles %s --last elsewhere" % other)
            self.assertEqual(list(self.fish("ahs select --profiles %s --last el" % other)), ["elsewhere"])
        self.becomes("ahs select --profiles=~/other\\ place --last el",
                     "ahs select --profiles=~/other\\ place --last elsewhere")

    def test_a_script_can_be_sourced_too(self):
        path = {shell: self.place.path(script) for shell, script in self.place.scripts.items()}
        for terminal in (bash(self.place, "source " + path["bash"]), zsh(self.place, "", "source " + path["zsh"])):
            try:
                self.assertEqual(terminal.complete("ahs select --last a").rstrip(), "ahs select --last a\\ b")
            finally:
                terminal.end()


if __name__ == "__main__":
    unittest.main()
