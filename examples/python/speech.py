#!/usr/bin/env python3
"""Learns to read spoken digits from recordings: examples/speech in Python, with its model "lstm".
A corpus comes from `scripts/make_corpus DIR`, or is any in that form of 16 kHz WAV files."""
import argparse, pathlib, time, wave

import numpy as np
import vorn

WORDS = "- zero one two three four five six seven eight nine oh".split()  # class 0 is CTC's blank
RATE, WINDOW, STEP, BANDS, STACK = 16000, 400, 160, 32, 3

# ---- Features: log mel filter banks with deltas, three frames to a row
def mel(frequency):
    return 1127 * np.log1p(frequency / 700)

POSITION = (mel(np.arange(257) * RATE / 512) - mel(60)) / (mel(7600) - mel(60)) * (BANDS + 1)
FILTERS = np.maximum(0, 1 - abs(POSITION - np.arange(1, BANDS + 1)[:, None])).astype(np.float32)

def features(path):
    with wave.open(str(path)) as file:
        assert (file.getframerate(), file.getnchannels()) == (RATE, 1), f"{path}: not 16 kHz mono"
        sound = np.frombuffer(file.readframes(file.getnframes()), np.int16) / np.float32(32768)
    sound = sound - np.float32(0.97) * np.concatenate([sound[:1], sound[:-1]])
    frames = np.lib.stride_tricks.sliding_window_view(sound, WINDOW)[::STEP]
    power = np.abs(np.fft.rfft(frames * np.hamming(WINDOW), 512)) ** 2
    static = np.log(power @ FILTERS.T + 1e-8)
    static -= static.mean(0)
    around = np.pad(static, ((2, 2), (0, 0)), "edge")
    delta = (around[3:-1] - around[1:-3] + 2 * (around[4:] - around[:-4])) / 10
    both = np.pad(np.hstack([static, delta]), ((0, -len(static) % STACK), (0, 0)), "edge")
    return both.reshape(len(both) // STACK, -1).astype(np.float32)

def read_corpus(folder, name):
    lines = [line.split("\t") for line in (folder / f"{name}.tsv").read_text().splitlines()]
    return [(features(folder / path), [WORDS.index(w) for w in t.split()]) for path, t in lines]

def augment(frames, random):  # stretches the bands, and silences some bands and frames
    frames = frames.reshape(len(frames), -1, BANDS)
    position = np.minimum(np.arange(BANDS) * (1 + random.uniform(-0.2, 0.2)), BANDS - 1)
    left = np.minimum(position.astype(int), BANDS - 2)
    weight = (position - left).astype(np.float32)
    frames = frames[..., left] + weight * (frames[..., left + 1] - frames[..., left])
    for axis, widest in ((2, 5), (2, 5), (0, 3), (0, 3)):
        width = min(random.integers(widest + 1), frames.shape[axis])
        begin = random.integers(frames.shape[axis] - width + 1)
        np.moveaxis(frames, axis, 0)[begin : begin + width] = 0
    return frames.reshape(len(frames), -1)

# ---- The network. Frame t of utterance n is row t * size + n of `size` utterances. A layer's
# backward() sets the gradients of its parameters and returns the error of its input.
def to_tensor(values, dtype, device):
    host = vorn.from_numpy(np.ascontiguousarray(values, dtype))
    return type(host)(host, device)

class Linear:
    def __init__(self, inputs, outputs, random, device):
        self.random, self.device, self.parameters, self.spaces = random, device, [], {}
        self.weight, self.weight_gradient = self.parameter((inputs, outputs), inputs**-0.5)
        self.bias, self.bias_gradient = self.parameter(outputs, 0)

    def parameter(self, shape, limit):
        value = to_tensor(self.random.uniform(-limit, limit, shape), np.float32, self.device)
        rest = [vorn.Tensor(value.shape, self.device) for _ in range(4)]
        self.parameters.append((value, *rest))  # its gradient, and what Adam keeps of it
        return value, rest[0]

    def space(self, name, *shape, is_zero=False):  # memory that is kept from batch to batch
        tensor = self.spaces.setdefault(name, vorn.Tensor(self.device))
        tensor.resize(shape, is_zero)
        return tensor

    def forward(self, x, name="out"):
        self.x, out = x, self.space(name, x.get_h(), self.bias.get_w())
        out.mul(x, self.weight)
        out.row_add_vec(out, self.bias)
        return out

    def backward(self, error):
        self.weight_gradient.mul(self.x, True, error, False)
        self.bias_gradient.col_sum(error)
        x_error = self.space("x error", *self.x.shape)
        x_error.mul(error, False, self.weight, True)
        return x_error

class Lstm(Linear):  # whose product makes the input of the input, forget, output and cell gates
    def __init__(self, inputs, cells, *args):
        super().__init__(inputs, 4 * cells, *args)
        self.cells = cells
        self.bias.slice(cells, 2 * cells).set_element(1)  # to forget little at first
        self.recurrent, self.recurrent_gradient = self.parameter((cells, 4 * cells), cells**-0.5)
        self.peep, self.peep_gradient = zip(*[self.parameter(cells, 0.1) for _ in range(3)])

    def forward(self, x, size):
        rows, self.size = x.get_h(), size
        gates = super().forward(x, "gates")
        self.inner = [self.space(name, rows, self.cells) for name in "ifgoh"]
        self.cell, self.out = (self.space(n, rows + size, self.cells, is_zero=True) for n in "CM")
        for t in range(rows // size):
            at = lambda tensor, t=t: tensor.range_row(t, t + 1, size)
            if t > 0:
                at(gates).mul(at(self.out), self.recurrent, 1, 1)
            at(self.out, t + 1).lstm_op(at(gates), *self.peep, at(self.cell), at(self.cell, t + 1),
                                        *map(at, self.inner), 50, -50)
        return self.out.slice(size, rows + size)

    def backward(self, error):
        rows, size, cells = error.get_h(), self.size, self.cells
        i, f, g, o, h = self.inner
        gate_error = self.space("gate error", rows, 4 * cells)
        cell_error, next_error = (self.space(n, size, cells, is_zero=True) for n in ("now", "next"))
        for t in reversed(range(rows // size)):
            at = lambda tensor, t=t: tensor.range_row(t, t + 1, size)
            if t + 1 < rows // size:  # a cell reaches the next by its forget gate and peepholes
                later = at(gate_error, t + 1)
                at(error).mul(later, False, self.recurrent, True, 1, 1)
                next_error.elem_mul(cell_error, at(f, t + 1))
                for k in range(2):
                    next_error.row_mul_vec(later.range_col(k, k + 1, cells), self.peep[k], 1, 1)
            at(gate_error).lstm_bp_op(at(i), at(f), at(g), at(o), self.peep[2], at(error), at(h),
                                      at(self.cell), next_error, cell_error)
        self.recurrent_gradient.mul(self.out.slice(0, rows), True, gate_error, False)
        product = self.space("product", rows, cells, is_zero=True)
        for k, first in enumerate((0, 0, size)):  # the output gate sees the new cell
            product.elem_mul(gate_error.range_col(k, k + 1, cells), self.cell[first : rows + first])
            self.peep_gradient[k].col_sum(product)
        return super().backward(gate_error)

class Batch:
    def __init__(self, utterances, device):
        frames, self.labels = zip(*utterances)
        self.counts = np.array([len(f) for f in frames])
        self.size, self.length, self.device = len(frames), max(self.counts), device
        padded = np.stack([np.pad(f, ((0, self.length - len(f)), (0, 0))) for f in frames], 1)
        self.features = to_tensor(padded.reshape(-1, padded.shape[2]), np.float32, device)
        mask = np.arange(self.length)[:, None] < self.counts
        self.mask = to_tensor(mask.ravel(), np.int32, device)

def ctc(posteriors, batch):
    """The sum of -log P(labels), and the error at the softmax's input; tables are the GPU's."""
    log = vorn.Tensor(posteriors, batch.device)
    log.limit(1e-30, 1)
    log.log()
    log = log.gpu()
    sizes = [2 * len(its) + 1 for its in batch.labels]  # with blanks between and around
    labels = np.full((batch.size, max(sizes)), -1)
    for row, size, its in zip(labels, sizes, batch.labels):
        row[:size] = np.insert(its, range(len(its) + 1), 0)
    what = [to_tensor(v, np.int32, "gpu") for v in (labels, batch.counts, sizes)]
    alpha, beta = (vorn.Tensor((posteriors.get_h(), labels.shape[1]), "gpu") for _ in range(2))
    [table.set_element(-1e30) for table in (alpha, beta)]  # the logarithm of zero
    for t in range(batch.length):
        alpha.compute_ctc_alpha(log, t, *what)
        beta.compute_ctc_beta(log, batch.length - 1 - t, *what)
    # A path ends, in the utterance's last frame, on its last label or on the blank after it.
    table = np.asarray(alpha.cpu()).reshape(batch.length, batch.size, -1)
    ends = zip(table[batch.counts - 1, range(batch.size)], sizes)
    pzx = [np.logaddexp(*row[size - 2 : size]) for row, size in ends]
    paths = vorn.Tensor(posteriors.shape, "gpu")
    paths.compute_ctc_err(alpha, beta, *what[:2], to_tensor(pzx, np.float32, "gpu"))
    error = vorn.Tensor(paths, batch.device)
    error.elem_add(posteriors, error, 1 / batch.size, -1 / batch.size)
    error.vec_mask(error, batch.mask)
    return -np.sum(pzx, dtype=float), error

class Network:
    def __init__(self, inputs, cells, random, device):
        self.lstms = [Lstm(i, cells, random, device) for i in (inputs, cells)]
        self.last = Linear(cells, len(WORDS), random, device)
        self.parameters = [p for layer in (*self.lstms, self.last) for p in layer.parameters]
        self.updates = 0

    def forward(self, batch):
        x = batch.features
        for layer in self.lstms:
            x = layer.forward(x, batch.size)
        posteriors = self.last.forward(x)
        posteriors.softmax(posteriors)
        return posteriors

    def train(self, batch, rate):  # an update by Adam; gives the sum of the losses before it
        loss, error = ctc(self.forward(batch), batch)
        for layer in (self.last, *reversed(self.lstms)):
            error = layer.backward(error)
        norm = np.sqrt(sum(gradient.norm2() ** 2 for _, gradient, *_ in self.parameters))
        assert np.isfinite(loss + norm), "training diverged: try a lower rate"
        self.updates += 1
        root = (1 - 0.99**self.updates) ** 0.5
        for value, gradient, mean, square, move in self.parameters:
            if norm > 5:
                gradient.mul(5 / norm)
            mean.elem_add(mean, gradient, 0.9, 0.1)
            square.elem_mul(gradient, gradient, 0.01, 0.99)
            move.sqrt(square)
            move.dot_div(mean, move, 0, 1e-8 * root)
            value.elem_add(value, move, 1, -rate * root / (1 - 0.9**self.updates))
        return loss

    def read(self, batch):  # the most likely class of each frame, repetitions and blanks left out
        best = vorn.IntTensor(batch.length * batch.size, batch.device)
        self.forward(batch).find_row_max_id(best)
        rows = np.asarray(best.cpu()).reshape(batch.length, batch.size).T
        rows = [row[:count] for row, count in zip(rows, batch.counts)]
        return [row[np.append(True, row[1:] != row[:-1]) & (row != 0)].tolist() for row in rows]

def edits(said, read):  # the least number of digits to change, add or leave out
    row = range(len(read) + 1)
    for i, digit in enumerate(said):
        last, row = row, [i + 1]
        for j in range(len(read)):
            row.append(min(last[j] + (digit != read[j]), last[j + 1] + 1, row[j] + 1))
    return row[-1]

def by_length(utterances, size):
    ordered = sorted(utterances, key=lambda utterance: len(utterance[0]))  # to need little padding
    return [ordered[i : i + size] for i in range(0, len(ordered), size)]

def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--corpus", type=pathlib.Path, required=True)
    parser.add_argument("--device", default="cpu")
    for name, default in dict(epochs=30, cells=160, batch=16, seed=1).items():
        parser.add_argument(f"--{name}", type=int, default=default)
    o = parser.parse_args()
    train, test = (read_corpus(o.corpus, name) for name in ("train", "test"))
    rows = np.concatenate([f for f, _ in train])
    mean, std = rows.mean(0), rows.std(0)
    train, test = ([((f - mean) / std, its) for f, its in part] for part in (train, test))
    print(f"training on {len(train)} utterances, {len(rows)} frames; testing on {len(test)}")
    random = np.random.default_rng(o.seed)
    network = Network(rows.shape[1], o.cells, random, o.device)
    planned = -(-len(train) // o.batch) * o.epochs
    for epoch in range(1, o.epochs + 1):
        start, loss = time.monotonic(), 0
        order, stretch = [train[i] for i in random.permutation(len(train))], 8 * o.batch
        batches = [batch for i in range(0, len(order), stretch)
                   for batch in by_length(order[i : i + stretch], o.batch)]
        for i in random.permutation(len(batches)):
            done = network.updates
            rate = 4e-3 * min(1, (done + 1) / 100) * 0.5 * (1 + np.cos(np.pi * done / planned))
            changed = [(augment(f, random), its) for f, its in batches[i]]
            loss += network.train(Batch(changed, o.device), rate)
        speed = len(rows) / (time.monotonic() - start)
        pairs = [(said, read) for batch in by_length(test, 32) for (_, said), read in
                 zip(batch, network.read(Batch(batch, o.device)))]
        errors = sum(edits(*pair) for pair in pairs) / sum(len(said) for said, _ in pairs)
        print(f"epoch {epoch}: loss {loss / len(train):.3f}, test digit error rate {errors:.2%}, "
              f"{speed:.0f} frames/s", flush=True)

if __name__ == "__main__":
    main()
