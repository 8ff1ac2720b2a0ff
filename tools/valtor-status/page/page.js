'use strict';

// The live page. Everything comes over an event stream of this server, as `state` and `event`, and
// while somebody follows a router its messages over one more. Names, paths and bodies come from a
// bus and may be anything: they reach the page as textContent and through shown() only.

const kUnanswered = 5;  // seconds without an answer on the bus; it is asked every two
const kWindow = 120;    // seconds that the lines show
const kStaleAfter = 3;  // seconds after which data is old
const kRecent = 10;     // seconds in which a message makes a link one that carries traffic
const kProof = 12;      // seconds after which the daemon would have given up a silent router
const kSettled = 60;    // seconds until a link that was lost counts as steady again
const kFlapping = 2;    // losses in ten minutes that still pass as steady
const kBehind = 500;    // frames, half a second of a link's pace
const kBehindBytes = 4e6;
const kHold = 20;    // seconds that a tile keeps its place after its trouble is over
const kInTurn = 32;  // tiles out of sight that are brought up to date at a time
const kEvents = 200;
const kKept = 2000;      // messages that the filter can look back at
const kRows = 500;       // messages on the screen
const kDrawEvery = 200;  // ms
const kSilence = 6;      // seconds without a word after which the stream is opened anew
const kFirst = 60;       // the same for an open stream's first state, which may be megabytes
const kJump = 5;         // seconds, beyond which a clock was set
const kLossesKept = 16;  // by the daemon for each router
const kInterrupted = 'Interrupted: messages may be missing here';

const $ = (id) => document.getElementById(id);

// --- Text -------------------------------------------------------------------------------------

// Text of a stranger, made visible: no control bytes, nothing that turns or hides what stands
// beside it, and no more than `most` characters.
function shown(text, most = 80) {
  let cut = String(text ?? '');
  if (cut.length > most) {
    cut = cut.slice(0, most).replace(/[\ud800-\udbff]$/, '') + '…';
  }
  if (/^[\x20-\x7e]*$/.test(cut)) {  // nearly always, and quick
    return cut;
  }
  return cut.replace(/[\p{Cc}\p{Cf}\p{Co}\u2028\u2029\ud800-\udfff]/gu, (c) => {
    const named = {'\n': '\\n', '\r': '\\r', '\t': '\\t'}[c];
    const code = c.codePointAt(0);
    return named ??
        (code < 256 ? '\\x' + code.toString(16).padStart(2, '0') :
                      '\\u{' + code.toString(16) + '}');
  });
}

const whole = new Intl.NumberFormat('en', {maximumFractionDigits: 0});
const count = (n) => Number.isFinite(n) ? whole.format(n) : '–';
const plural = (n, word) => `${count(n)} ${word}${n === 1 ? '' : 's'}`;

function scaled(n, unit, steps) {
  if (!Number.isFinite(n)) {
    return '–';
  }
  let step = 0;
  while (n >= 999.5 && step < steps.length - 1) {
    n /= 1000;
    ++step;
  }
  const digits = n >= 99.5 || (step === 0 && Number.isInteger(n)) ? 0 : n >= 9.95 ? 1 : 2;
  return `${n.toFixed(digits)}${unit || steps[step] ? ' ' : ''}${steps[step]}${unit}`;
}
const bytes = (n) => scaled(n, 'B', ['', 'k', 'M', 'G', 'T']);
const rate = (n) => n >= 1000 ? count(n) : scaled(n, '', ['']);

function span(seconds) {
  if (!Number.isFinite(seconds)) return '–';
  const s = Math.max(0, Math.round(seconds));
  const two = (n) => String(n).padStart(2, '0');
  if (s < 60) return `${s} s`;
  if (s < 3600) return `${Math.floor(s / 60)} min ${two(s % 60)} s`;
  if (s < 86400) return `${Math.floor(s / 3600)} h ${two(Math.floor(s % 3600 / 60))} min`;
  return `${Math.floor(s / 86400)} d ${Math.floor(s % 86400 / 3600)} h`;
}

const clockTime = new Intl.DateTimeFormat('en-GB', {timeStyle: 'medium'});
const dayTime = new Intl.DateTimeFormat('en-GB', {dateStyle: 'medium', timeStyle: 'medium'});
function at(seconds, milliseconds = false) {
  const date = new Date(seconds * 1000);
  if (Number.isNaN(date.getTime())) {
    return '–';
  }
  const today = Math.abs(clock.now() - seconds) < 72000;
  return (today ? clockTime : dayTime).format(date) +
      (milliseconds ? '.' + String(date.getMilliseconds()).padStart(3, '0') : '');
}
// When, and while data is fresh also how long ago.
const since = (s, now) => view.stale || !Number.isFinite(s) ? at(s) : `${at(s)} (${span(now - s)})`;

const reasons = {
  __proto__: null,
  'hung up': 'hung up: the far end closed it',
  'no response': 'no response: silent for 10 s',
  'receive error': 'receive error: broken by the network',
  'keep-alive not taken': 'keep-alive not taken: the far end does not read',
  'standby': 'left on purpose: standby',
  'disabled': 'left on purpose: disabled',
  'removed': 'left on purpose: removed',
  'moved': 'left on purpose: it has moved',
};
const reasonText = (reason) => reasons[reason] ?? shown(reason);

// --- Elements ---------------------------------------------------------------------------------

// Each touches the page only where something changes: that is what keeps 32 routers light.
function setText(element, text) {
  if (element.textContent !== text) {
    element.textContent = text;
  }
}
function setData(element, name, value) {
  if (element.dataset[name] !== value) {
    element.dataset[name] = value;
  }
}
function make(name, className, text) {
  const element = document.createElement(name);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}
const shape = () => {
  const element = make('span', 'shape');
  element.setAttribute('aria-hidden', 'true');
  return element;
};
// Makes the rows of a table those of the texts given, in order.
function setRows(body, rows, classes) {
  while (body.rows.length > rows.length) {
    body.deleteRow(-1);
  }
  rows.forEach((texts, index) => {
    const row = body.rows[index] ?? body.insertRow();
    texts.forEach((text, column) => {
      const cell = row.cells[column] ?? row.insertCell();
      cell.className = classes[column];
      setText(cell, text);
    });
  });
}

// --- What is known ----------------------------------------------------------------------------

// The server's time, from the best of what it said and this machine's steady clock, so that it goes
// on when nothing comes. The best of the last minute only, since two clocks drift apart.
const clock = {
  offset: -Infinity,
  best: [-Infinity, -Infinity],  // of this half minute and the one before
  begun: -Infinity,
  hear(now) {
    const steady = performance.now() / 1000;
    const offset = now - steady;
    if (Math.abs(offset - this.offset) > kJump) {
      this.best = [offset, offset];
      this.begun = steady;
    } else if (steady - this.begun > 30) {
      this.best = [offset, this.best[0]];
      this.begun = steady;
    } else {
      this.best[0] = Math.max(offset, this.best[0]);
    }
    this.offset = Math.max(...this.best);
  },
  now() {
    return performance.now() / 1000 +
        (Number.isFinite(this.offset) ? this.offset : performance.timeOrigin / 1000);
  },
};

const view = {
  state: null,  // the last `state`
  stale: false,
  heard: -Infinity,  // steady time of the last sign of life of the stream, s
  begins: false,     // whether the stream is open and its first state is still on its way
  tiles: new Map(),  // by unique ID
  turn: 0,
  events: [],
  crossing: new Map(),  // for the rates: what stood there at the last look
};

// Whether nothing has come for so many seconds.
const isSilent = (seconds) =>
    performance.now() / 1000 - Math.max(view.heard, 0) > (view.begins ? kFirst : seconds);

const losses = (n) => n >= kLossesKept ? `${count(n)} or more` : count(n);
const isPlain = (x) => x !== null && typeof x === 'object' && !Array.isArray(x);
const objects = (x) => Array.isArray(x) ? x.filter(isPlain) : [];

// --- Verdicts ---------------------------------------------------------------------------------

// What a router's figures say: does it really carry traffic, and if not, why. The rank orders.
function judge(router, tile, now) {
  const waiting = router.waiting ?? {};
  const frames = `${plural(waiting.frames, 'frame')} (${bytes(waiting.bytes)}) ` +
      (waiting.frames === 1 ? 'waits' : 'wait');
  const loss = router.lastLoss;
  const verdict = (state, rank, word, detail) => ({state, rank, word, detail});
  if (router.state === 'disabled' || router.enabled === false) {
    return verdict('off', 3, 'Disabled', 'on purpose');
  }
  if (router.state !== 'up') {
    if (view.state.daemon.document?.role?.state === 'standby') {
      return verdict('off', 3, 'Left', 'the controller is on standby');
    }
    const why = loss ? reasonText(loss.reason) :
                       `nobody has answered at ${shown(router.address)}:${shown(router.port)} yet`;
    return verdict('down', 0, 'Down', why);
  }
  if (router.stalled) {
    return verdict('stalled', 0, 'Takes nothing', frames);
  }
  const back = now - router.since;
  const lost = tile.lost;
  // A frozen node's system still accepts connections. Until the daemon would have given the link up
  // again nothing says that anybody is there, but a message from there.
  if (/no response|keep-alive/.test(loss?.reason) && back < kProof &&
      !tile.heardSince(router.since)) {
    return verdict(
        'silent', 0, 'No answer', `connected again for ${span(back)}, but not a word since`);
  }
  if (tile.lateFor >= 1) {
    return verdict('behind', 1, 'Behind', frames);
  }
  // Not behind an end that was meant, such as a standby.
  const lastLost = router.losses?.at(-1);
  const wasLost = Number.isFinite(lastLost) && !(loss?.time > lastLost);
  if (lost > kFlapping || (wasLost && back < kSettled)) {
    const often = lost > 0 ? `lost ${losses(lost)} × in 10 minutes, ` : '';
    return verdict('unsteady', 1, 'Unsteady', `${often}back for ${span(back)}`);
  }
  const to = tile.movedAt.to > now - kRecent;
  const from = tile.movedAt.from > now - kRecent;
  if (to || from) {
    return verdict(
        'carries', 2, 'Carries traffic',
        to && from ? 'both ways' :
            to     ? 'to the router only' :
                     'from the router only');
  }
  const moved = Math.max(tile.movedAt.to, tile.movedAt.from);
  const known = tile.rates[0]?.t ?? now;
  return verdict(
      'quiet', 2, 'Up, quiet',
      moved > 0 ? `nothing for ${span(now - moved)}` : `nothing seen in ${span(now - known)}`);
}

// The one sentence of the header, its state, and why.
function overall(now) {
  const state = view.state;
  const old =
      state?.daemon.asOf ? `What stands below is ${span(now - state.daemon.asOf)} old.` : '';
  if (isSilent(kStaleAfter)) {
    return ['down', 'No connection to valtor-status', `${old} It is tried again.`];
  }
  const {daemon, bus} = state;
  const known = daemon.document;
  if (!daemon.answering) {
    return [
      'down', 'The daemon does not answer',
      `${shown(daemon.problem, 300).replace(/\.?$/, '.')} ${old}`
    ];
  }
  if (view.stale) {
    return ['down', 'The data is old', old];
  }
  if (known?.controller?.state !== 'up') {
    return [
      'down', 'The controller’s link is down: nothing crosses',
      known?.controller?.lastLoss ? reasonText(known.controller.lastLoss.reason) : ''
    ];
  }
  if (known.role?.state === 'standby') {
    return ['off', 'Standby: the routers are left on purpose', ''];
  }
  const tiles = [...view.tiles.values()];
  const enabled = tiles.filter((tile) => tile.verdict.rank < 3);
  if (enabled.length === 0) {
    return ['off', tiles.length === 0 ? 'No router is listed' : 'Every router is disabled', ''];
  }
  const bad = enabled.filter((tile) => tile.verdict.rank === 0).length;
  const shaky = enabled.filter((tile) => tile.verdict.rank === 1).length;
  const of = `of ${plural(enabled.length, 'router')}`;
  if (bad > 0) {
    return [
      'down',
      `${bad} ${of} ${bad === 1 ? 'carries' : 'carry'} nothing` +
          (shaky > 0 ? `, ${shaky} ${shaky === 1 ? 'is' : 'are'} shaky` : ''),
      ''
    ];
  }
  if (shaky > 0) {
    return ['unsteady', `${shaky} ${of} ${shaky === 1 ? 'is' : 'are'} shaky`, ''];
  }
  if (bus.state !== 'up') {
    return [
      'unsteady', 'All routers are up, the page does not hear the bus', shown(bus.problem, 300)
    ];
  }
  if (known.unsavedFiles > 0) {
    return ['unsteady', 'All routers are up, what the daemon knows is not on disk', ''];
  }
  const carrying = enabled.filter((tile) => tile.verdict.state === 'carries').length;
  if (carrying === 0) {
    return [
      'quiet',
      enabled.length === 1 ? 'The router is up, quiet' :
                             `All ${enabled.length} routers up, all quiet`,
      ''
    ];
  }
  return [
    'carries',
    carrying === enabled.length ?
        ['The router carries traffic', 'Both routers carry traffic'][carrying - 1] ??
            `All ${carrying} routers carry traffic` :
        `All ${enabled.length} routers up, ${carrying} ${
            carrying === 1 ? 'carries' : 'carry'} traffic`,
    ''
  ];
}

// --- Lines ------------------------------------------------------------------------------------

const lines = {
  available: typeof Chart === 'function',
  visible: new Set(),  // tiles on the screen: only theirs are drawn
  colours() {
    const style = getComputedStyle(document.documentElement);
    const of = (name) => style.getPropertyValue(name).trim();
    return {to: of('--to'), from: of('--from'), edge: of('--edge'), soft: of('--soft')};
  },
  axis(weight, format, colours) {
    return {
      type: 'linear',
      axis: 'y',
      position: 'left',
      stack: 'both',
      stackWeight: weight,
      beginAtZero: true,
      offset: true,
      grid: {color: colours.edge, borderColor: colours.edge, drawTicks: false},
      // Two marks are enough, 0 and the most.
      afterBuildTicks: (axis) => {
        axis.ticks = [{value: 0}, {value: axis.max}];
      },
      afterFit: (axis) => {
        axis.width = 50;
      },
      grace: '5%',
      suggestedMax: 1,
      ticks: {
        color: colours.soft,
        font: {size: 10},
        padding: 3,
        callback: (value) => format(value),
        autoSkip: false
      },
    };
  },
  make(canvas) {
    const colours = this.colours();
    const line = (axis, towards) => ({
      data: [],
      yAxisID: axis,
      borderColor: colours[towards],
      borderWidth: 1.5,
      borderJoinStyle: 'round',
      borderDash: towards === 'from' ? [4, 3] : [],
    });
    return new Chart(canvas, {
      type: 'line',
      data: {
        datasets: [
          line('messages', 'to'), line('messages', 'from'), line('octets', 'to'),
          line('octets', 'from')
        ]
      },
      options: {
        animation: false,
        responsive: true,
        maintainAspectRatio: false,
        parsing: false,
        normalized: true,
        events: [],
        spanGaps: false,
        elements: {point: {radius: 0}, line: {tension: 0}},
        plugins: {legend: {display: false}, tooltip: {enabled: false}},
        scales: {
          x: {
            type: 'linear',
            grid: {display: false, borderColor: colours.edge},
            afterBuildTicks: (axis) => {
              axis.ticks = [0, 0.5, 1].map((part) => ({value: axis.max - (1 - part) * kWindow}));
            },
            ticks: {
              color: colours.soft,
              font: {size: 10},
              padding: 0,
              maxRotation: 0,
              align: 'inner',
              callback: (value, index) => ['−2 min', '−1 min', 'now'][index]
            }
          },
          octets: this.axis(2, bytes, colours),  // the first one is lowest
          messages: this.axis(3, (value) => `${rate(value)}/s`, colours),
        },
      },
    });
  },
};

// --- Tiles ------------------------------------------------------------------------------------

const kColumns = ['toRouter', 'fromRouter', 'toRouterBytes', 'fromRouterBytes'];

// What the server says about a second, [time, ...columns], or about some of them in which nothing
// crossed, [first, last].
function samplesOf(entry) {
  if (!Array.isArray(entry) || !entry.every(Number.isFinite)) {
    return [];
  }
  const sample = (t, values) =>
      Object.assign({t}, Object.fromEntries(kColumns.map((name, i) => [name, values[i] ?? 0])));
  const [first, last, ...values] = entry;
  if (entry.length > 2) {
    return [sample(first, [last, ...values])];
  }
  const steps = Math.min(kWindow, Math.round(last - first));
  return Array.from({length: steps + 1 || 0}, (_, i) => {
    return sample(steps > 0 ? first + (last - first) * i / steps : last, []);
  });
}

class Tile {
  constructor(id) {
    this.id = id;
    this.element = $('tile').content.firstElementChild.cloneNode(true);
    this.parts = Object.fromEntries(['name', 'word', 'detail', 'place', 'since', 'loss'].map(
        (name) => [name, this.element.querySelector('.' + name)]));
    this.figures = Object.fromEntries([...this.element.querySelectorAll('[data-figure]')].map(
        (cell) => [cell.dataset.figure, cell]));
    this.canvas = this.element.querySelector('canvas');
    this.rates = [];
    this.movedAt = {to: 0, from: 0};
    this.counts = null;    // of the last look
    this.countedFrom = 0;  // when a message from the router was seen last, by its counters
    this.dropped = NaN;
    this.droppedAt = -Infinity;  // when the page saw messages dropped
    this.lost = 0;
    this.lateSince = null;
    this.verdict = {state: 'off', rank: 3, word: '', detail: ''};
    this.place = 3;  // its rank in the order, which follows the verdict's with a delay
    this.calmSince = 0;
    this.element.addEventListener('click', () => {
      if (getSelection().isCollapsed) {  // a click, not the end of marking some text
        follow.open(this.id, this.parts.name);
      }
    });
    tileOf.set(this.element, this);
    sight.observe(this.element);
  }

  remove() {
    sight.unobserve(this.element);
    lines.visible.delete(this);
    this.chart?.destroy();
    this.element.remove();
  }

  // What was seen at times that the clock has not reached any more is worth nothing.
  forget(now) {
    this.rates = [];
    this.movedAt = {to: 0, from: 0};
    this.countedFrom = 0;
    this.droppedAt = -Infinity;
    this.lateSince = null;
    this.calmSince = now;
  }

  addRates(rates, fresh) {
    if (fresh) {
      this.rates = [];
    }
    for (const one of rates.flatMap(samplesOf)) {
      const last = this.rates[this.rates.length - 1];
      if (!Number.isFinite(one.t) || one.t > clock.now() + kJump || (last && one.t <= last.t)) {
        continue;
      }
      if (last && one.t - last.t > 2.5) {  // nobody looked meanwhile: the line has a gap
        this.rates.push({t: last.t + 1, gap: true});
      }
      this.rates.push(one);
      if (one.toRouter > 0) this.movedAt.to = one.t;
      if (one.fromRouter > 0) this.movedAt.from = one.t;
    }
    this.rates.splice(0, this.rates.findIndex((one) => one.t > clock.now() - kWindow - 5));
  }

  // Whether the router has sent a message since then.
  heardSince(time) {
    return this.countedFrom > time || this.movedAt.from > time + 1;
  }

  // What has to be seen in every state, also while nothing is drawn.
  look(router, now) {
    this.router = router;
    const from = (router.fromRouter?.messages ?? 0) + (router.fromRouter?.blocked ?? 0);
    if (this.counts !== null && from > this.counts) {
      this.countedFrom = now;
    }
    this.counts = from;
    if (router.dropped > this.dropped) {
      this.droppedAt = now;
    }
    this.dropped = router.dropped;
    const late = router.waiting?.frames >= kBehind || router.waiting?.bytes >= kBehindBytes;
    this.lateSince = late ? this.lateSince ?? now : null;
    this.lateFor = late ? now - this.lateSince : 0;
    this.verdict = judge(router, this, now);
    if (this.verdict.rank <= this.place) {
      this.place = this.verdict.rank;
      this.calmSince = now;
    } else if (now - this.calmSince > kHold || this.verdict.rank === 3) {
      this.place = this.verdict.rank;
    }
  }

  mean(column, now) {
    const recent = this.rates.filter((one) => one.t > now - 5.5 && !one.gap);
    return recent.length === 0 ?
        NaN :
        recent.reduce((sum, one) => sum + (one[column] || 0), 0) / recent.length;
  }

  render(now) {
    const {router, parts, verdict} = this;
    setData(this.element, 'state', verdict.state);
    setText(parts.name, shown(router.name) || '(no name)');
    setText(parts.word, view.stale ? `Was: ${verdict.word}` : verdict.word);
    setText(parts.detail, verdict.detail);
    setText(
        parts.place,
        `${shown(router.address)}:${shown(router.port)}` +
            (router.uniqueID === router.name ? '' : ` · ${shown(router.uniqueID)}`));
    const word = {up: 'Up', down: 'Down', disabled: 'Disabled'}[router.state] ??
        shown(router.state);
    setText(parts.since, `${word} since ${since(router.since, now)}`);
    const loss = router.lastLoss;
    parts.loss.hidden = verdict.state === 'down';  // its reason stands above
    setText(
        parts.loss,
        loss ? `Last end: ${reasonText(loss.reason)}, ${since(loss.time, now)}` :
               'No link has ended yet');
    this.renderFigures(now);
  }

  renderFigures(now) {
    const {router, figures} = this;
    const way = (prefix, object) => {
      setText(figures[prefix + 'Messages'], count(object?.messages));
      setText(figures[prefix + 'Bytes'], bytes(object?.bytes));
      setText(figures[prefix + 'Blocked'], count(object?.blocked));
      const rules = Object.entries(object?.rules ?? {})
                        .sort((a, b) => b[1] - a[1])
                        .map(([rule, n]) => `${shown(rule, 40)} ${count(n)}`);
      setText(figures[prefix + 'Rules'], rules.join(', '));
      figures[prefix + 'Rules'].parentNode.hidden = rules.length === 0;
    };
    way('to', router.toRouter);
    way('from', router.fromRouter);
    setText(figures.toRate, rate(this.mean('toRouter', now)));
    setText(figures.fromRate, rate(this.mean('fromRouter', now)));
    setText(figures.toByteRate, bytes(this.mean('toRouterBytes', now)));
    setText(figures.fromByteRate, bytes(this.mean('fromRouterBytes', now)));
    const waiting = router.waiting ?? {};
    setText(figures.waiting, `${count(waiting.frames)} · ${bytes(waiting.bytes)}`);
    figures.waiting.classList.toggle('alarm', this.lateSince !== null || router.stalled === true);
    setText(figures.dropped, count(router.dropped));
    figures.dropped.classList.toggle('alarm', now - this.droppedAt < 600);
    setText(figures.lost, `${losses(this.lost)} of ${count(router.lost)}`);
    figures.lost.classList.toggle('alarm', this.lost > 0);
  }

  draw(now) {
    if (!lines.available) {
      return;
    }
    this.chart ??= lines.make(this.canvas);
    kColumns.forEach((column, index) => {
      this.chart.data.datasets[index].data =
          this.rates.map((one) => ({x: one.t, y: one.gap ? NaN : one[column] || 0}));
    });
    const scale = this.chart.options.scales.x;
    scale.max = now;
    scale.min = scale.max - kWindow;
    this.chart.update('none');
    const most = (column) => Math.max(0, ...this.rates.map((one) => one[column] || 0));
    const text = `Lines of the last two minutes. Messages a second at most: ` +
        `${rate(most('toRouter'))} to the router, ${
                     rate(most('fromRouter'))} from it. Bytes a second ` +
        `at most: ${bytes(most('toRouterBytes'))} to the router, ${
                     bytes(most('fromRouterBytes'))} from it.`;
    if (this.canvas.getAttribute('aria-label') !== text) {
      this.canvas.setAttribute('aria-label', text);
    }
  }
}

const tileOf = new WeakMap();  // by element
const sight = new IntersectionObserver((entries) => {
  for (const entry of entries) {
    const tile = tileOf.get(entry.target);
    if (!entry.isIntersecting) {
      lines.visible.delete(tile);
    } else if (view.tiles.get(tile.id) === tile) {
      lines.visible.add(tile);
      renderSoon();
      tile.draw(clock.now());
    }
  }
}, {rootMargin: '200px'});

// Trouble first, otherwise in the daemon's order. While somebody aims at a tile none moves.
let aimedAt = -Infinity;
$('tiles').addEventListener('pointermove', () => {
  aimedAt = performance.now();
});
function orderTiles() {
  const wanted = [...view.tiles.values()].sort((a, b) => a.place - b.place || a.index - b.index);
  const box = $('tiles');
  const isNew = wanted.some((tile) => tile.element.parentNode !== box);
  if (!isNew &&
      (performance.now() - aimedAt < 2000 ||
       wanted.every((tile, i) => box.children[i] === tile.element))) {
    return;
  }
  const focused = document.activeElement;
  wanted.forEach((tile, index) => {
    if (box.children[index] !== tile.element) {
      box.insertBefore(tile.element, box.children[index] ?? null);
    }
  });
  if (focused !== document.activeElement && box.contains(focused)) {
    focused.focus({preventScroll: true});
  }
}

// --- The state --------------------------------------------------------------------------------

function takeState(state) {
  if (!isPlain(state) || !isPlain(state.daemon)) {
    return;
  }
  state.bus = isPlain(state.bus) ? state.bus : {};
  clock.hear(state.now);
  if (state.now < view.state?.now - kJump) {
    for (const tile of view.tiles.values()) {
      tile.forget(state.now);
    }
  }
  view.state = state;
  const fresh = Array.isArray(state.events);  // the first one of a stream
  if (fresh) {
    view.events = objects(state.events).slice(-kEvents);
    renderEvents();
  }
  const more = new Map(objects(state.routers).map((one) => [one.uniqueID, one]));
  const listed = new Set();
  objects(state.daemon.document?.routers).forEach((router, index) => {
    const id = String(router.uniqueID);
    listed.add(id);
    const tile = view.tiles.get(id) ?? new Tile(id);
    view.tiles.set(id, tile);
    tile.index = index;
    tile.lost = more.get(id)?.lostLastTenMinutes ?? 0;
    tile.addRates(more.get(id)?.rates ?? [], fresh);
    tile.look(router, state.daemon.asOf ?? state.now);
  });
  for (const [id, tile] of view.tiles) {
    if (!listed.has(id)) {
      tile.remove();
      view.tiles.delete(id);
      announcer.states.delete('router ' + id);
    }
  }
}

function factText(id, text, bad = false) {
  setText($(id), text);
  $(id).classList.toggle('bad', bad);
}

function renderFacts(now) {
  const {daemon, bus} = view.state;
  const known = daemon.document ?? {};
  const age = daemon.asOf === null ? NaN : now - daemon.asOf;
  setText(
      $('age'),
      Number.isNaN(age) ? 'never read' :
          view.stale    ? `${span(age)} old` :
                          `live (${Math.max(0, age).toFixed(1)} s)`);
  setText($('version'), shown(view.state.version));
  setText($('role'), known.role ? `${view.stale ? 'was ' : ''}${shown(known.role.state)}` : '');
  const delay = now - bus.daemonAnsweredAt < kUnanswered ? bus.daemonDelayMs : NaN;
  factText(
      'daemon',
      !daemon.answering ? 'does not answer' :
                          'answers' +
              (Number.isFinite(known.startTime) ? `, up ${span(now - known.startTime)}` : ''),
      !daemon.answering);
  const link = known.controller;
  factText(
      'controller',
      link ? `${shown(link.state)} since ${since(link.since, now)}` +
              (link.state !== 'up' && link.lastLoss ? `: ${reasonText(link.lastLoss.reason)}` :
                                                      '') :
                                                      '–',
      link !== undefined && link.state !== 'up');
  factText(
      'bus',
      bus.state !== 'up' ?
          `the page is not connected${bus.problem ? ': ' + shown(bus.problem, 200) : ''}` :
          Number.isFinite(delay) ? `answers in ${delay < 10 ? delay.toFixed(1) : count(delay)} ms` :
                                   'no answer',
      bus.state !== 'up' || !Number.isFinite(delay) || delay > 1000);
  const queue = known.localQueue;
  factText(
      'queue', queue ? `${count(queue.delayMs)} ms · ${bytes(queue.bytes)}` : '–',
      queue?.delayMs > 1000);
  const unsaved = known.unsavedFiles;
  factText(
      'disk',
      unsaved > 0 ? `${plural(unsaved, 'file')} could not be written, see the log` :
          unsaved === 0 ? 'up to date' :
                          '–',
      unsaved > 0);
  const loops = known.loops;
  const last = loops?.last;
  const recent = last ? now - last.time < 600 : false;
  factText('loops', loops?.episodes ? plural(loops.episodes, 'episode') : 'none', recent);
  setText(
      $('loop'),
      last ? `A message went round in circles, ${since(last.time, now)}: ${shown(last.kind)} on ` +
              `“${shown(last.path)}” from ${shown(last.from, 300)} to ${shown(last.to, 300)}` :
             '');
  $('loop').hidden = !recent;
}

function renderCrossing() {
  const known = view.state.daemon.document ?? {};
  const looks = new Map();
  const rows = objects(known.crossing).map((one) => {
    const key = `${one.direction} ${one.kind} ${one.path}`;
    let look = view.crossing.get(key);
    const apart = look ? known.now - look.now : 0;
    const goesOn =
        look?.startTime === known.startTime && apart >= 0 && one.messages >= look.messages;
    if (!goesOn || apart >= 2) {
      const perSecond = goesOn ? (one.messages - look.messages) / apart : NaN;
      look = {now: known.now, startTime: known.startTime, messages: one.messages, rate: perSecond};
    }
    looks.set(key, look);
    const towards = {toRouters: 'routers', toController: 'controller'}[one.direction] ?? 'both';
    return [
      towards, shown(one.kind), shown(one.path) || '(none)', rate(look.rate), count(one.messages),
      bytes(one.bytes)
    ];
  });
  view.crossing = looks;
  setRows($('crossing'), rows, ['', '', 'path', 'number', 'number', 'number']);
  $('no-crossing').hidden = rows.length > 0;
}

const kWarnings = {
  __proto__: null,
  notConnected: 'dropped: a link is down',
  sendFailed: 'link broke while sending',
  sendGaveUp: 'dropped: far end not reading',
  routerStalled: 'router takes no messages',
  lostWithLink: 'waiting messages lost with a link',
  readingPaused: 'reading pauses',
  messageFailed: 'message could not be handled',
  messageCircles: 'messages go round in circles',
};
function renderWarnings() {
  const entries = Object.entries(view.state.daemon.document?.warnings ?? {});
  setRows(
      $('warnings'), entries.map(([kind, n]) => [kWarnings[kind] ?? shown(kind), count(n)]),
      ['', 'number']);
  entries.forEach(([, n], index) => {
    $('warnings').rows[index].className = n > 0 ? 'some' : 'none';
  });
}

const kIcon = {
  carries: '<circle cx="8" cy="8" r="7"/>',
  quiet: '<circle cx="8" cy="8" r="7"/>',
  unsteady: '<path d="M8 1 15 15H1z"/>',
  off: '<path d="M1 6h14v4H1z"/>',
  down: '<path d="m3 1 5 5 5-5 2 2-5 5 5 5-2 2-5-5-5 5-2-2 5-5-5-5z"/>'
};
function renderVerdict(now) {
  const [state, text, why] = overall(now);
  const box = $('verdict-text').parentNode;
  if (box.dataset.state !== state) {
    box.dataset.state = state;
    const colour = {
      carries: '%231a9a4a',
      quiet: '%231a9a4a',
      unsteady: '%23c98a00',
      off: '%23777',
      down: '%23d02030'
    }[state];
    $('icon').href =
        `data:image/svg+xml,<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 16 16" fill="${
            colour}">${kIcon[state]}</svg>`;
  }
  setText($('verdict-text'), text);
  setText($('verdict-why'), why.trim());
  $('verdict-why').hidden = why.trim() === '';
  setText(document.querySelector('title'), `${text} – Valtor Remote`);
}

// The routers in trouble by name, each a way to its tile.
function renderTroubled() {
  const troubled = view.stale ?
      [] :
      [...view.tiles.values()]
          .filter((tile) => tile.verdict.rank < 2)
          .sort((a, b) => a.verdict.rank - b.verdict.rank || a.index - b.index);
  const box = $('troubled');
  box.hidden = troubled.length === 0;
  while (box.children.length > troubled.length) {
    box.lastElementChild.remove();
  }
  troubled.forEach((tile, index) => {
    if (box.children.length <= index) {
      box.append(make('li'));
      const button = make('button');
      button.type = 'button';
      button.append(shape(), make('span'));
      button.addEventListener(
          'click', () => view.tiles.get(button.dataset.router)?.parts.name.focus());
      box.lastElementChild.append(button);
    }
    const button = box.children[index].firstElementChild;
    setData(button, 'router', tile.id);
    setData(button, 'state', tile.verdict.state);
    setText(button.lastElementChild, ` ${shown(tile.router.name)}: ${tile.verdict.word}`);
  });
}

// Says changes of state to who listens instead of looking: all of five seconds together.
const announcer = {
  states: new Map(),
  lines: [],
  timer: null,
  note(key, text) {
    const before = this.states.get(key);
    this.states.set(key, text);
    if (before === undefined || before === text) {
      return;
    }
    this.lines = this.lines.filter((line) => line.key !== key).concat({key, text});
    this.timer ??= setTimeout(() => {
      this.timer = null;
      setText($('announcer'), this.lines.map((line) => line.text).slice(-8).join('. '));
      this.lines = [];
    }, 5000);
  },
};

// Those on the screen, and some of the others, so that hundreds of routers cost little more.
function tilesInTurn() {
  const tiles = [...view.tiles.values()];
  const some = new Set(lines.visible);
  for (let left = Math.min(kInTurn, tiles.length); left > 0; --left) {
    view.turn = (view.turn + 1) % tiles.length;
    some.add(tiles[view.turn]);
  }
  return some;
}

function render() {
  const now = clock.now();
  const steady = performance.now() / 1000;
  const wasStale = view.stale;
  const daemon = view.state?.daemon;
  view.stale = !daemon || !daemon.answering || now - (daemon.asOf ?? 0) > kStaleAfter ||
      steady - view.heard > kStaleAfter;
  const body = document.body.classList;
  body.toggle('stale', view.stale && view.state !== null);
  body.toggle('waiting', view.state === null);
  if (view.state === null) {
    setText(
        $('verdict-text'),
        isSilent(kStaleAfter) ? 'No connection to valtor-status' : 'Waiting for the first data');
    return;
  }
  renderVerdict(now);
  const fine = /carries|quiet/.test($('verdict-text').parentNode.dataset.state);
  announcer.note('', fine ? 'All routers are up' : $('verdict-text').textContent);
  if (!document.hidden) {
    renderFacts(now);
    renderTroubled();
    // Old data keeps the durations that it had.
    const then = view.stale ? daemon.asOf ?? now : now;
    for (const tile of tilesInTurn()) {
      tile.render(then);
    }
    orderTiles();
    renderCrossing();
    renderWarnings();
    const none = view.tiles.size === 0;
    $('no-routers').hidden = !none;
    setText($('no-routers'), $('verdict-text').textContent + '.');
  }
  if (!view.stale && !wasStale) {
    for (const tile of view.tiles.values()) {
      const word = tile.verdict.rank === 2 ? 'up' : tile.verdict.word;
      announcer.note('router ' + tile.id, `${shown(tile.router.name)}: ${word}`);
    }
  }
}

// --- What happened ----------------------------------------------------------------------------

const kEventShapes = {
  __proto__: null,
  up: 'carries',
  down: 'down',
  disabled: 'off',
  listed: 'quiet',
  removed: 'off',
  stalled: 'stalled',
  flows: 'carries',
  loop: 'unsteady',
  warning: 'unsteady'
};
function eventRow(event) {
  const row = make('li');
  row.dataset.state = kEventShapes[event.kind] ?? 'off';
  const time = make('time', '', at(event.time));
  const date = new Date(event.time * 1000);
  time.dateTime = Number.isNaN(date.getTime()) ? '' : date.toISOString();
  row.append(shape(), time, make('span', '', shown(event.text, 300)));
  return row;
}
function renderEvents() {
  $('events').replaceChildren(...view.events.slice().reverse().map(eventRow));
  $('no-events').hidden = view.events.length > 0;
}
function takeEvent(event) {
  if (!isPlain(event) || view.events.some((one) => one.id === event.id)) {
    return;
  }
  view.events.push(event);
  $('events').prepend(eventRow(event));
  $('no-events').hidden = true;
  if (view.events.length > kEvents) {
    view.events.shift();
    $('events').lastElementChild.remove();
  }
}

// --- Streams ----------------------------------------------------------------------------------

// An event stream that comes back by itself, also when the server refuses it for a while, which the
// browser takes as final. Handlers by event get the parsed data; what is no JSON is left out.
class Stream {
  constructor(url, handlers, opened, failed) {
    Object.assign(this, {url, handlers, opened, failed});
    this.open();
  }
  open() {
    this.source = new EventSource(this.url);
    this.source.onopen = () => this.opened?.();
    this.source.onerror = () => {
      this.failed?.();
      if (this.source.readyState === EventSource.CLOSED) {
        this.timer = setTimeout(() => this.reopen(), 2000);
      }
    };
    for (const [name, handle] of Object.entries(this.handlers)) {
      this.source.addEventListener(name, (event) => {
        let data;
        try {
          data = JSON.parse(event.data);
        } catch {
          return;
        }
        handle(data);
      });
    }
  }
  close() {
    clearTimeout(this.timer);
    this.source.close();
  }
  reopen() {
    this.close();
    this.open();
  }
}

// --- Live messages ----------------------------------------------------------------------------

const narrow = matchMedia('(max-width: 48rem)');
const follow = {
  id: null,
  stream: null,
  opener: null,
  kept: [],     // the last kKept, oldest first
  waiting: [],  // those that are not on the screen yet, at most kRows
  paused: false,
  seen: 0,
  missed: 0,
  behind: NaN,
  begun: false,  // whether the stream was open before
  drawing: false,
  drawn: 0,
  words: [],

  open(id, opener) {
    if (this.id === id) {
      $('filter').focus();
      return;
    }
    this.stop();
    Object.assign(
        this, {id, opener, kept: [], waiting: [], seen: 0, missed: 0, behind: NaN, begun: false});
    this.setPaused(false);
    history.replaceState(null, '', '#follow=' + encodeURIComponent(id));
    $('messages').replaceChildren();
    this.reveal(true);
    this.say('connecting');
    this.stream = new Stream(
        '/api/events?follow=' + encodeURIComponent(id), {
          message: (batch) => this.take(objects(batch)),
          end: (end) => this.say(`ended: ${shown(end?.reason, 200)}; tried again`, true),
        },
        () => this.begin());
    this.mark();
    if (opener) {
      $('follow-heading').focus();
    }
  },
  stop() {
    this.stream?.close();
    this.stream = null;
    this.id = null;
  },
  close() {
    if (this.id === null) {
      return;
    }
    this.stop();
    this.reveal(false);
    history.replaceState(null, '', location.pathname);
    this.mark();
    this.opener?.focus();
  },
  // Where it takes the whole window, what lies below it is out of reach.
  reveal(open) {
    $('follow').hidden = !open;
    document.body.classList.toggle('following', open);
    const covers = open && narrow.matches;
    for (const part of document.querySelectorAll('header, main, footer')) {
      part.inert = covers;
    }
  },
  // Shows which tile is open, and its name, which may come later than the messages.
  mark() {
    for (const tile of view.tiles.values()) {
      const open = tile.id === this.id;
      tile.element.classList.toggle('open', open);
      tile.parts.name.setAttribute('aria-expanded', String(open));
    }
    setText($('follow-name'), shown(view.tiles.get(this.id)?.router.name ?? this.id ?? ''));
  },
  say(text, bad = false) {
    setText($('follow-state'), text);
    $('follow-state').classList.toggle('alarm', bad);
  },

  // The stream is open, maybe not for the first time.
  begin() {
    this.say('live');
    if (this.begun && this.kept[this.kept.length - 1]?.note !== kInterrupted) {
      this.add({note: kInterrupted});
    }
    this.begun = true;
  },

  take(batch) {
    for (const line of batch) {
      if (line.missed !== undefined) {
        this.missed += Number(line.missed) || 0;
      } else {
        ++this.seen;
      }
      if (line.error !== undefined) {
        this.say(shown(line.error, 200), true);
        continue;
      }
      this.add(this.entry(line));
    }
  },
  add(entry) {
    this.kept.push(entry);
    this.waiting.push(entry);
    this.kept.splice(0, this.kept.length - kKept);
    this.waiting.splice(0, this.waiting.length - kRows);
    if (!this.drawing) {
      this.drawing = true;
      // At once when all is quiet; drawing every batch of many would cost twice the time.
      setTimeout(
          () => requestAnimationFrame(() => this.draw()),
          Math.max(0, this.drawn + kDrawEvery - performance.now()));
    }
  },
  // A message as its texts; the search text is made when a filter asks for it.
  entry(line) {
    if (line.missed !== undefined) {
      return {note: `${plural(Number(line.missed) || 0, 'message')} left out: too many at once`};
    }
    return {
      time: line.time,
      blocked: line.passed === false,
      texts: [
        at(line.time, true),
        line.direction === 'toRouter' ? '→ to' : '← from',
        line.passed === false ? `blocked by ${shown(line.rule, 40)}` : 'passed',
        `${shown(line.kind)} ${shown(line.path)}`,
        `${shown(line.source)} → ${shown(line.destination)}`,
        bytes(line.bytes),
        shown(line.body, 4096),
      ],
    };
  },
  matches(entry) {
    if (this.words.length === 0 || entry.note !== undefined) {
      return true;
    }
    entry.search ??= entry.texts.join(' ').toLowerCase();
    return this.words.every(
        (word) => word.startsWith('-') && word.length > 1 ? !entry.search.includes(word.slice(1)) :
                                                            entry.search.includes(word));
  },
  row(entry) {
    if (entry.note !== undefined) {
      return make('li', 'missed', entry.note);
    }
    const row = make('li', entry.blocked ? 'blocked' : '');
    entry.texts.forEach((text, column) => {
      row.append(make('span', ['', '', 'verb', '', '', 'number', 'body'][column], text));
    });
    return row;
  },
  draw() {
    this.drawing = false;
    this.drawn = performance.now();
    if (!this.paused && this.waiting.length > 0) {
      const rows = [];
      for (const entry of this.waiting) {
        if (this.matches(entry)) {
          rows.push(this.row(entry));
        }
      }
      const newest = this.waiting[this.waiting.length - 1];
      this.behind =
          newest.time === undefined ? this.behind : Math.max(0, clock.now() - newest.time);
      this.waiting = [];
      const box = $('messages');
      box.prepend(...rows.reverse());
      while (box.children.length > kRows) {
        box.lastElementChild.remove();
      }
    }
    this.showCounts();
  },
  redraw() {
    const rows = this.kept.filter((entry) => this.matches(entry)).slice(-kRows);
    this.waiting = [];
    $('messages').replaceChildren(...rows.reverse().map((entry) => this.row(entry)));
    this.showCounts();
  },
  showCounts() {
    const parts =
        [`${plural(this.seen, 'message')}`, `${count($('messages').children.length)} shown`];
    if (this.missed > 0) parts.push(`${count(this.missed)} missed`);
    if (this.paused)
      parts.push(
          `${this.waiting.length >= kRows ? kRows + ' or more' : count(this.waiting.length)} new`);
    else if (Number.isFinite(this.behind))
      parts.push(`${this.behind.toFixed(1)} s from bus to page`);
    setText($('follow-counts'), parts.join(' · '));
  },
  setPaused(paused) {
    this.paused = paused;
    $('pause').setAttribute('aria-pressed', String(paused));
    setText($('pause'), paused ? 'Go on' : 'Pause');
    if (!paused && this.id !== null) {
      this.redraw();
    }
  },
};

narrow.addEventListener('change', () => follow.reveal(follow.id !== null));  // a turned phone
$('follow-close').addEventListener('click', () => follow.close());
$('pause').addEventListener('click', () => follow.setPaused(!follow.paused));
$('filter').addEventListener('input', () => {
  follow.words = $('filter').value.toLowerCase().split(/\s+/).filter((word) => word !== '');
  follow.redraw();
});
$('wrap').addEventListener(
    'change', () => $('messages').classList.toggle('wrap', $('wrap').checked));
$('messages').addEventListener('click', (event) => {
  if (getSelection().isCollapsed) {
    event.target.closest('li')?.classList.toggle('open');
  }
});
document.addEventListener('keydown', (event) => {
  if (event.key === 'Escape' && !event.defaultPrevented) {
    follow.close();
  }
});

// --- Start ------------------------------------------------------------------------------------

let rendering = false;
function renderSoon() {
  if (document.hidden) {
    render();
  } else if (!rendering) {
    rendering = true;
    requestAnimationFrame(() => {
      rendering = false;
      render();
    });
  }
}

function drawLines() {
  if (!document.hidden) {
    for (const tile of lines.visible) {
      tile.draw(clock.now());
    }
  }
}

function hear(begins) {
  view.heard = performance.now() / 1000;
  view.begins = begins;
}

const states = new Stream(
    '/api/events', {
      state(state) {
        hear(false);
        takeState(state);
        follow.mark();
        renderSoon();
      },
      event(event) {
        hear(false);
        takeEvent(event);
      },
    },
    () => hear(true), () => {
      view.begins = false;
    });

// The page's own clock: ages go on, lines move, and a stream that has fallen silent is replaced.
setInterval(() => {
  const steady = performance.now() / 1000;
  if (isSilent(kSilence) && steady - (view.reopened ?? 0) > kSilence) {
    view.reopened = steady;
    states.reopen();
  }
  renderSoon();
  drawLines();
}, 1000);
document.addEventListener('visibilitychange', () => {
  renderSoon();
  drawLines();
});
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
  for (const tile of view.tiles.values()) {
    tile.chart?.destroy();
    tile.chart = undefined;
  }
  drawLines();
});
$('no-lines').hidden = lines.available;
document.body.classList.toggle('lineless', !lines.available);

const wanted = /^#follow=(.+)$/.exec(location.hash);
if (wanted) {
  try {
    follow.open(decodeURIComponent(wanted[1]), null);
  } catch {
    history.replaceState(null, '', location.pathname);
  }
}
