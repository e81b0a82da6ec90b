"""Shared fixtures of the Python tests: the library thread count, restored after each test."""
import numpy as np
import pytest

import vekr


@pytest.fixture(params=[1, 2], ids=lambda n: f"threads={n}")
def threads(request):
    """Runs a test with 1 and with 2 library threads."""
    saved = vekr.get_num_threads()
    vekr.set_num_threads(request.param)
    yield request.param
    vekr.set_num_threads(saved)


@pytest.fixture
def rng():
    return np.random.default_rng(7)


def bad_argument_test(calls):
    """A test over {name: (call, error, words)}: each call raises `error` with `words` in its
    message."""
    @pytest.mark.parametrize("name", calls)
    def test(name):
        call, error, words = calls[name]
        with pytest.raises(error) as caught:
            call()
        assert words in str(caught.value), str(caught.value)
    return test
