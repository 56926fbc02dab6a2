"""Contexts, threads, processes and the end of the interpreter."""

import gc
import multiprocessing
import subprocess
import sys
import threading
import time

import numpy as np
import pytest
from conftest import ENGINE, rectangle

import kvo


def test_what_outlives_its_context_says_so():
    context = kvo.Context()
    model = rectangle()
    pipeline = kvo.Pipeline("forward", context=context)
    texture = kvo.Texture(np.ones((2, 2), np.uint8), context=context)
    assert pipeline.render(model, (8, 8)).any()
    assert sum(context.live_objects().values()) > 0
    context.close()
    context.close()
    assert context.closed and sum(context.live_objects().values()) == 0 and "closed" in repr(context)
    for use in (
        lambda: pipeline.render(model, (8, 8)),
        lambda: pipeline.order,
        lambda: pipeline["Forward"],
        lambda: texture.read(),
        lambda: texture.set(np.ones((2, 2), np.uint8)),
        lambda: kvo.Pipeline("forward", context=context),
        lambda: context.description,
    ):
        with pytest.raises(kvo.ContextError):
            use()
    # The model is data, and goes on in another one.
    with kvo.Context() as other:
        assert kvo.Pipeline("forward", context=other).render(model, (8, 8)).any()


def test_objects_keep_a_context_that_nobody_names():
    pipeline = kvo.Pipeline("forward", context=kvo.Context())
    gc.collect()
    assert pipeline.render(rectangle(), (8, 8)).any()


def test_contexts_draw_in_turns_without_touching_one_another():
    with kvo.Context() as a, kvo.Context() as b:
        model = rectangle()
        one, two = (kvo.Pipeline("forward", context=context) for context in (a, b))
        first = one.render(model, (32, 32))
        for _ in range(3):
            assert (two.render(model, (32, 32)) == first).all()
            assert (one.render(model, (32, 32)) == first).all()
        with pytest.raises(kvo.Error, match="another context"):
            two.set("Forward", "Viewport", kvo.Texture(np.ones((2, 2)), context=a))


def test_nothing_is_left_behind(context):
    def work():
        model = kvo.Model(ENGINE)
        pipeline = kvo.Pipeline("viewport", context=context)
        pipeline.render(model, (64, 36))

    work()
    gc.collect()
    settled = sum(context.live_objects().values())
    for _ in range(5):
        work()
        gc.collect()
        assert sum(context.live_objects().values()) <= settled


def test_frames_do_not_grow(context):
    pipeline = kvo.Pipeline("viewport", context=context)
    model = rectangle()
    for _ in range(3):
        pipeline.render(model, (64, 36))
    settled = context.live_objects()
    for i in range(50):
        pipeline.render(model, (64 + i % 2, 36), outputs=["Model.Depth", "image"])
    pipeline.render(model, (64, 36), frames=10)
    assert sum(context.live_objects().values()) <= sum(settled.values()) + 20  # the pool of two sizes


def test_a_thread_has_a_context_of_its_own():
    expected = kvo.Pipeline("forward").render(rectangle(), (32, 32))
    results = {}

    def work(number):
        results[number] = kvo.Pipeline("forward").render(rectangle(), (32, 32)), kvo.context()
        kvo.context().close()

    threads = [threading.Thread(target=work, args=(i,)) for i in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len({id(context) for _, context in results.values()}) == 4
    assert all((image == expected).all() for image, _ in results.values())


def test_a_pipeline_moves_between_threads():
    pipeline = kvo.Pipeline("forward")
    expected = pipeline.render(rectangle(), (32, 32))
    images = []
    thread = threading.Thread(target=lambda: images.append(pipeline.render(rectangle(), (32, 32))))
    thread.start()
    thread.join()
    assert (images[0] == expected).all()
    assert (pipeline.render(rectangle(), (32, 32)) == expected).all()


def test_other_threads_go_on_while_the_library_works():
    pipeline = kvo.Pipeline("viewport")
    model = kvo.Model(ENGINE)
    pipeline.render(model, (64, 36))
    beats = []
    done = threading.Event()

    def beat():
        while not done.is_set():
            beats.append(time.perf_counter())
            time.sleep(0.002)

    thread = threading.Thread(target=beat)
    thread.start()
    start = time.perf_counter()
    pipeline.render(model, (1280, 720), frames=2)
    end = time.perf_counter()
    done.set()
    thread.join()
    within = [t for t in beats if start < t < end]
    assert end - start > 0.05 and len(within) > 5, "the lock of the interpreter is not held"


def _in_process(number):
    return kvo.render(ENGINE, size=(16, 16), camera=kvo.orbit(yaw=45)).tobytes()


def test_processes_draw_the_same():
    with multiprocessing.get_context("spawn").Pool(2) as pool:
        images = pool.map(_in_process, range(4))
    assert set(images) == {_in_process(0)}


@pytest.mark.parametrize(
    "program",
    [
        "p = kvo.Pipeline('viewport'); p.render(kvo.Model(engine), (32, 18))",
        "c = kvo.Context(); t = kvo.Texture(np.ones((2, 2), np.uint8), context=c); import builtins; builtins.kept = t",
        "kvo.render(engine, size=(16, 16)); raise SystemExit(0)",
        "import threading; t = threading.Thread(target=kvo.render, kwargs=dict(size=(8, 8))); t.start(); t.join()",
    ],
)
def test_the_interpreter_ends_well(program):
    code = f"import kvo, numpy as np\nengine = {str(ENGINE)!r}\n{program}"
    run = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert "Traceback" not in run.stderr and "rror" not in run.stderr
