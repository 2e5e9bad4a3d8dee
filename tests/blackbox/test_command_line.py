"""The command line of the real binary: options, messages, exit statuses,
the usage text and the start-up banner, byte for byte."""
import re
import signal

import pytest

from harness import BIN, free_port, wait_for

USAGE = (b"manager_svc 1.0.0\n"
         b"usage : manager_svc [OPTION]... \n\n"
         b"OPTION: \n"
         b"  -d                run as daemon.\n"
         b"  -D HOME_PATH      set webpage hoem path.\n"
         b"  -h                show this info.\n"
         b"  -i IP_ADDRS       set listen ip_addrs.\n"
         b"  -m MONITOR_PERIOD set monitor period.\n"
         b"  -o LOG_FILE       set log_file.\n"
         b"                        If not set, msg will print to stderr\n"
         b"  -p PORT_NO        set listen port.\n"
         b"  -t TREAD_NO       set max listen thread no.\n"
         b"  -v LEVEL          verbose print.\n"
         b"                        0= ERR (default)\n"
         b"                        1= WARN\n"
         b"                        2= DEBUG\n")

EXECUTE_TIME = (r"execute_time  : \[(Sun|Mon|Tue|Wed|Thu|Fri|Sat) "
                r"(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)"
                r"(  [1-9]| [12][0-9]| 3[01]) [0-2][0-9]:[0-5][0-9]:[0-6][0-9] [0-9]{4}\]\n")


def failure(name, argument):
    return b"invalid %s:[%s]\nemergency exit.\n" % (name, argument)


def banner_of(sandbox, *args, add_port=True):
    """Starts the daemon, waits for its banner, stops it with SIGINT;
    returns (stderr text, port)."""
    daemon = sandbox.start(*args, add_port=add_port)
    assert daemon.wait_stderr("execute_time  : ["), daemon.stderr_text()
    assert daemon.stop(signal.SIGINT) == 0, daemon.stderr_text()
    return daemon.stderr_text(), daemon.port


def test_help_prints_the_usage_text_and_exits_0(sandbox):
    result = sandbox.run(["-h"])
    assert (result.returncode, result.stdout, result.stderr) == (0, b"", USAGE)


@pytest.mark.parametrize("args, status, text", [
    (["-h", "-p", "0"], 0, USAGE),
    (["-p", "0", "-h"], 1, failure(b"port", b"0")),
    (["-p", "0", "-t", "0"], 1, failure(b"port", b"0")),
])
def test_options_act_in_command_line_order(sandbox, args, status, text):
    result = sandbox.run(args)
    assert (result.returncode, result.stderr) == (status, text)


@pytest.mark.parametrize("args, text", [
    (["-p", "0"], failure(b"port", b"0")),
    (["-p", "abc"], failure(b"port", b"abc")),
    (["-p", "-80"], failure(b"port", b"-80")),
    (["-t", "0"], failure(b"thread_no", b"0")),
    (["-t", "x"], failure(b"thread_no", b"x")),
    (["-m", "0"], failure(b"g_monitor_period", b"0")),
    (["-m", "-1"], failure(b"g_monitor_period", b"-1")),
    (["-v", "3"], failure(b"verbose_lv", b"3")),
    (["-v", "-1"], failure(b"verbose_lv", b"-1")),
    (["-dv3"], failure(b"verbose_lv", b"3")),
    (["-i", "localhost"], failure(b"ipaddrs", b"localhost")),
    (["-i", "10.0.0"], failure(b"ipaddrs", b"10.0.0")),
    (["-i", "1.2.3.4 "], failure(b"ipaddrs", b"1.2.3.4 ")),
    (["-D", "/no/such/dir"], failure(b"home_path", b"/no/such/dir")),
    (["-D", "/etc/hostname"], failure(b"home_path", b"/etc/hostname")),
])
def test_invalid_value_gives_its_message_and_status_1(sandbox, args, text):
    result = sandbox.run(args)
    assert (result.returncode, result.stdout, result.stderr) == (1, b"", text)


@pytest.mark.parametrize("args, getopt_line, letter", [
    (["-o", "/tmp/x.log"], b"invalid option -- 'o'", b"o"),
    (["-x"], b"invalid option -- 'x'", b"x"),
    (["-p"], b"option requires an argument -- 'p'", b"p"),
    (["-t", "4", "-D"], b"option requires an argument -- 'D'", b"D"),
    (["-dv"], b"option requires an argument -- 'v'", b"v"),
    (["-\x01"], b"invalid option -- '\x01'", b"#"),
])
def test_unknown_or_incomplete_option_gives_usage_and_status_0(sandbox, args, getopt_line, letter):
    result = sandbox.run(args)
    expected = (BIN.encode() + b": " + getopt_line + b"\n"
                + b"Illegal option:-" + letter + b"\n" + USAGE)
    assert (result.returncode, result.stdout, result.stderr) == (0, b"", expected)


def test_banner_with_the_defaults(sandbox):
    port = free_port()
    text, _ = banner_of(sandbox, "-p", str(port), add_port=False)
    head = ("==== execute manager_svc ==== \n"
            "is_daemon     : [false]\n"
            f"listen        : [localhost:{port}]\n"
            "thread_no     : [10]\n"
            "verbose_level : [0]\n"
            "log_file      : [/tmp/.manager_svc.debug]\n"
            "home_path     : [/home/httpd/manager_svc/]\n")
    assert re.fullmatch(re.escape(head) + EXECUTE_TIME + r"recv sig=2\n", text), text


def test_banner_reports_every_option(sandbox):
    text, port = banner_of(sandbox, "-i", "127.0.0.1", "-t", "3", "-m", "5", "-v", "1",
                           "-D", "/tmp")
    assert (f"listen        : [127.0.0.1:{port}]\n"
            "thread_no     : [3]\n"
            "verbose_level : [1]\n"
            "log_file      : [/tmp/.manager_svc.debug]\n"
            "home_path     : [/tmp]\n") in text
    assert "monitor" not in text


def test_numbers_read_their_leading_digits_and_repeats_keep_the_last(sandbox):
    port = free_port()
    text, _ = banner_of(sandbox, "-p", "1", "word", "-v", "x", "-p", f"{port}abc", "-t7z",
                        add_port=False)
    assert f"listen        : [localhost:{port}]\n" in text
    assert "thread_no     : [7]\n" in text
    assert "verbose_level : [0]\n" in text


def test_long_home_path_is_stored_cut_to_127_characters(sandbox):
    long_dir = "/srv/" + "d" * 195
    assert len(long_dir) == 200
    sandbox.write(long_dir + "/index.html", "page")
    text, _ = banner_of(sandbox, "-D", long_dir)
    assert f"home_path     : [{long_dir[:127]}]\n" in text


def test_daemon_option_in_a_combined_word_still_prints_the_banner(sandbox):
    """-dv2 detaches after the banner; an address that no interface has makes
    the detached process end at server start, so nothing is left running."""
    result = sandbox.run(["-dv2", "-i", "192.0.2.1", "-p", str(free_port())])
    assert result.returncode == 0
    text = result.stderr.decode()
    assert "is_daemon     : [true]\n" in text
    assert "verbose_level : [2]\n" in text
    assert re.search(EXECUTE_TIME + "$", text), text
    assert wait_for(lambda: "failed, ret=[" in sandbox.debug_log(), 10)
