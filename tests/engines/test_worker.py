"""The threads that engines run on."""

import os
import threading
import weakref

import pytest

from tarvopy.engines.worker import Worker


def test_runs_in_turn_share_one_thread():
    """SCIP crashes once more than 64 threads have used its derivatives."""
    assert len({Worker(threading.get_ident).result() for _ in range(100)}) == 1


def test_more_runs_at_once_than_threads_all_end():
    gate = threading.Event()
    runs = [Worker(lambda i=i: gate.wait(10) and (threading.get_ident(), i)) for i in range(80)]
    assert not any(run.wait(0) for run in runs)
    gate.set()
    answers = [run.result() for run in runs]
    assert [i for _, i in answers] == list(range(80))
    assert len({thread for thread, _ in answers}) < 60


def test_an_error_is_the_runs_own():
    run = Worker(lambda: 1 / 0)
    assert run.wait(10)
    assert not run.running
    with pytest.raises(ZeroDivisionError):
        run.result()
    assert Worker(lambda: 5).result() == 5


def test_an_answer_lives_as_long_as_its_run():
    class Answer:
        pass

    run = Worker(Answer)
    answer = weakref.ref(run.result())
    Worker(lambda: None).result()
    del run
    assert answer() is None


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_a_child_process_has_threads_of_its_own():
    assert Worker(lambda: 1).result() == 1
    child = os.fork()
    if child == 0:
        os._exit(0 if Worker(lambda: 2).wait(10) else 1)
    assert os.waitpid(child, 0)[1] == 0
