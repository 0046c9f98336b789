"""Threads, forks and the end of the interpreter."""

import subprocess
import sys
import textwrap
import threading

import numpy as np
import pytest

import tolcompatible
from conftest import ONNX, PERSONS, READER, THINGS
from tolcompatible import Model


def run_script(script, status=0, **values):
    """Runs the script in an interpreter of its own; THINGS is defined. Returns what it prints."""
    fields = {key: str(value) if key == "modelRoot" else value for key, value in THINGS.items()}
    start = f"import tolcompatible, numpy, os, sys\nTHINGS = {fields!r}\n"
    start += "frame = numpy.zeros((64, 64, 3), numpy.uint8)\n"
    done = subprocess.run(
        # Python 3.12 and later warn if a process with threads forks.
        [sys.executable, "-W", "ignore:This process:DeprecationWarning", "-c",
         start + textwrap.dedent(script)],
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert (done.returncode, done.stderr) == (status, "")
    return done.stdout


def in_threads(count, work):
    """Runs work(number) in threads and raises what they raise."""
    errors = []

    def guarded(number):
        try:
            work(number)
        except BaseException as error:
            errors.append(error)

    threads = [threading.Thread(target=guarded, args=[number]) for number in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if errors:
        raise errors[0]


def test_threads_with_a_model_each_and_with_one_model(frame):
    models = [Model(**fields) for fields in (THINGS, ONNX, THINGS, ONNX)]
    reader = Model(**READER)

    def work(number):
        for _ in range(100):
            result = reader(frame, models[number](frame))
            assert len(result) == 2 and result.texts[0] == reference

    reference = reader(frame, models[0](frame)).texts[0]
    in_threads(4, work)


def test_other_threads_run_during_a_call():
    ticks = []
    with Model(**THINGS) as model:
        big = np.zeros((6000, 6000, 3), np.uint8)[:, ::-1][:, ::-1]
        stop = threading.Event()

        def count():
            while not stop.is_set():
                ticks.append(1)
                stop.wait(0.0001)

        thread = threading.Thread(target=count)
        thread.start()
        for _ in range(300):
            model(big)
        stop.set()
        thread.join()
    assert len(ticks) > 10


def test_closing_during_calls_of_other_threads(frame):
    for _ in range(20):
        model = Model(**THINGS)

        def work(number):
            if number == 0:
                model.close()
                return
            try:
                for _ in range(20):
                    model(frame)
            except tolcompatible.Error as error:
                assert "closed" in str(error)

        in_threads(3, work)


def test_forked_processes_get_an_error():
    out = run_script("""
        model = tolcompatible.Model(**THINGS)
        model(frame)
        sys.stdout.flush()
        child = os.fork()
        if child == 0:
            for work in (
                lambda: model(frame),
                lambda: tolcompatible.Model(**THINGS),
                tolcompatible.devices,
            ):
                try:
                    work()
                except tolcompatible.Error as error:
                    print("forked" in str(error))
            model.close()
            del model
            sys.exit()
        print(os.waitpid(child, 0)[1], len(model(frame)))
        """)
    assert out == "True\nTrue\nTrue\n0 2\n"


def test_processes_started_before_the_first_model():
    out = run_script("""
        child = os.fork()
        with tolcompatible.Model(**THINGS) as model:
            print(len(model(frame)))
        if child:
            os.waitpid(child, 0)
        """)
    assert out == "2\n2\n"


@pytest.mark.parametrize(
    "end", ["", "sys.exit(0)", "del tolcompatible, model", "model.self = model"]
)
def test_interpreter_ends_with_open_models(end):
    run_script(f"""
        model = tolcompatible.Model(**THINGS)
        results = [model(frame)]
        sys.modules["kept"] = model, results
        {end}
        """)


def test_interpreter_ends_while_threads_run():
    for _ in range(5):
        run_script("""
            import threading, time
            model = tolcompatible.Model(**THINGS)
            def work():
                other = tolcompatible.Model(**THINGS)
                while True:
                    model(frame), other(frame)
            def quiet():
                try:
                    work()
                except tolcompatible.Error:
                    pass
            for _ in range(4):
                threading.Thread(target=quiet, daemon=True).start()
            time.sleep(0.2)
            """)


def test_a_logger_that_fails_does_not_damage_the_model(frame):
    import logging

    class Failing(logging.Handler):
        def handle(self, record):
            raise KeyError(record)

    handler = Failing()
    logger = logging.getLogger("tolcompatible")
    model = Model(**PERSONS)
    logger.addHandler(handler)
    logger.setLevel(logging.INFO)
    try:
        with pytest.raises(KeyError):
            Model(**THINGS)
        with pytest.raises(KeyError):
            model.close()
    finally:
        logger.removeHandler(handler)
        logger.setLevel(logging.NOTSET)
    assert model.closed
