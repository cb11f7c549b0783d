"""The notebook runs as it stands, and the recogniser learns."""

import importlib.util
import os
import pathlib
import subprocess
import sys
import wave

import nbclient
import nbformat
import numpy as np
import pytest

import vorn

EXAMPLES = pathlib.Path(__file__).parents[2] / "examples" / "python"


def load_speech():
    spec = importlib.util.spec_from_file_location("speech", EXAMPLES / "speech.py")
    speech = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(speech)
    return speech


@pytest.mark.slow
def test_the_tour_runs():
    notebook = nbformat.read(EXAMPLES / "tour.ipynb", as_version=4)
    nbclient.NotebookClient(notebook, timeout=120, kernel_name="python3").execute()
    outputs = [output for cell in notebook.cells for output in cell.get("outputs", [])]
    assert any("image/png" in output.get("data", {}) for output in outputs)


def test_the_recognisers_gradients():
    speech = load_speech()
    random = np.random.default_rng(2)
    network = speech.Network(6, 5, random, "cpu")
    utterances = [(random.normal(size=(length, 6)).astype(np.float32), labels)
                  for length, labels in ((9, [1, 2]), (7, [3, 3, 1]))]
    batch = speech.Batch(utterances, "cpu")

    def loss():
        return speech.ctc(network.forward(batch), batch)[0] / batch.size

    error = speech.ctc(network.forward(batch), batch)[1]
    for layer in (network.last, *reversed(network.lstms)):
        error = layer.backward(error)
    for value, gradient, *_ in network.parameters:
        values, step = np.asarray(value), 1e-2
        place = np.unravel_index(random.integers(values.size), values.shape)
        kept = values[place]
        values[place] = kept + step
        above = loss()
        values[place] = kept - step
        difference = (above - loss()) / (2 * step)
        values[place] = kept
        assert np.asarray(gradient)[place] == pytest.approx(difference, abs=3e-3)


@pytest.mark.slow
def test_the_recogniser_learns_tones(tmp_path):
    random = np.random.default_rng(3)
    tones = {"one": 300, "two": 900, "three": 2500}
    for name, count in (("train", 48), ("test", 12)):
        lines = []
        for n in range(count):
            said = random.choice(list(tones), 2)
            time = np.arange(4800) / 16000
            sound = np.concatenate(
                [np.concatenate([np.sin(2 * np.pi * tones[w] * time), 0 * time]) for w in said]
            )
            sound = 0.3 * sound + 0.01 * random.normal(size=sound.size)
            with wave.open(str(tmp_path / f"{name}{n}.wav"), "wb") as file:
                file.setparams((1, 2, 16000, 0, "NONE", ""))
                file.writeframes((sound * 32767).astype(np.int16).tobytes())
            lines.append(f"{name}{n}.wav\t{' '.join(said)}\n")
        (tmp_path / f"{name}.tsv").write_text("".join(lines))
    done = subprocess.run(
        [sys.executable, EXAMPLES / "speech.py", "--corpus", tmp_path, "--epochs", "40",
         "--cells", "48", "--batch", "2"],
        env={**os.environ, "PYTHONPATH": str(pathlib.Path(vorn.__file__).parents[1])},
        capture_output=True, text=True, check=True,
    )
    last = done.stdout.splitlines()[-1]
    assert last.startswith("epoch 40: loss ")
    # Who says nothing has 100 %, and who says always the same not much less.
    assert float(last.split("rate ")[1].split("%")[0]) < 45, done.stdout
