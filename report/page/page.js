// Draws the document that stands in the page. Whatever comes from a log goes in as text or as the value of an attribute,
// never as markup; hidden and direction-changing characters are shown escaped.

const outcomes = {
  failed: { text: 'failed', sign: '✗' },
  given_up: { text: 'given up', sign: '⊘' },
  refused: { text: 'refused', sign: '!' },
  unfinished: { text: 'unfinished', sign: '…' },
  upgraded_at_second_attempt: { text: 'upgraded at the second attempt', sign: '↻' },
  upgraded: { text: 'upgraded', sign: '✓' },
  planned: { text: 'planned', sign: '○' },
  current: { text: 'current', sign: '=' },
  not_considered: { text: 'not considered', sign: '–' },
};
const outcomeOrder = Object.keys(outcomes);
const notWell = new Set(['failed', 'given_up', 'refused', 'unfinished', 'planned']);
const isUpgraded = (region) => region.outcome === 'upgraded' || region.outcome === 'upgraded_at_second_attempt';

const attemptEnds = {
  done: { text: 'done', sign: '' },
  failed: { text: 'failed', sign: '✗' },
  stuck: { text: 'found stuck and cancelled', sign: '⊘' },
  not_started: { text: 'not started', sign: '!' },
  unfinished: { text: 'unfinished', sign: '' },
};

const eventKinds = {
  stage: { lane: 'Run', text: 'stage', sign: 'S' },
  marker_skip: { lane: 'Run', text: 'skipped by the marker', sign: 'M' },
  run_start: { lane: 'Run', text: 'start', sign: '▶' },
  event_failed: { lane: 'Run', text: 'event not sent', sign: '!', bad: true },
  run_end: { lane: 'Run', text: 'end', sign: '■' },
  activation: { lane: 'Run', text: 'reload', sign: 'R' },
  activation_failed: { lane: 'Run', text: 'reload failed', sign: '!', bad: true },
  led: { lane: 'LED', text: 'LED', sign: 'L' },
  watchdog_punch: { lane: 'Watchdog', text: 'watchdog punched', sign: 'W' },
  watchdog_punch_failed: { lane: 'Watchdog', text: 'watchdog punch failed', sign: '!', bad: true },
  flash_mounted: { lane: 'Flash', text: 'flash mounted', sign: 'F' },
  flash_failed: { lane: 'Flash', text: 'flash failed', sign: '!', bad: true },
  flash_released: { lane: 'Flash', text: 'flash released', sign: 'F' },
};
const eventLanes = ['Run', 'LED', 'Watchdog', 'Flash'];
const levels = ['error', 'info', 'debug'];

const drawAtOnce = 1000; // regions; the bodies of further runs are drawn when they are opened
const chipsAtOnce = 60; // regions that are well and never waited for an upgrade; more of them are folded
const findingsAtOnce = 20;
const markWidth = 3; // percent of a track

// ---- text

const hiddenCharacters = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff\ufff9-\ufffb]/g;

function escaped(character) {
  const code = character.charCodeAt(0);
  return code < 0x100 ? `\\x${code.toString(16).padStart(2, '0')}` : `\\u${code.toString(16).padStart(4, '0')}`;
}

/** A text of one line: nothing in it is invisible or moves its neighbours. */
const shown = (text) => String(text ?? '').replace(hiddenCharacters, escaped);
/** A text that may have several lines. */
const shownLines = (text) => String(text ?? '').split('\n').map(shown).join('\n');

const count = (number, one, many = `${one}s`) => `${number.toLocaleString('en-US')} ${number === 1 ? one : many}`;

/** Microseconds since 1970 as "2026-11-22 06:02:13". */
const moment = (time) => (time ? new Date(time / 1000).toISOString().slice(0, 19).replace('T', ' ') : 'time unknown');
const clockTime = (time) => (time ? new Date(time / 1000).toISOString().slice(11, 23) : '');

/** Microseconds in words: "850 ms", "42 s", "3 min 20 s", "2 h 5 min". */
function duration(microseconds) {
  if (microseconds < 1000) return `${microseconds} µs`;
  if (microseconds < 995_000) return `${Math.round(microseconds / 1000)} ms`;
  if (microseconds < 9_950_000) return `${Number((microseconds / 1_000_000).toFixed(1))} s`;
  const seconds = Math.round(microseconds / 1_000_000);
  const parts = [[86_400, 'd'], [3600, 'h'], [60, 'min'], [1, 's']]
    .map(([size, unit], at, all) => [Math.floor((at ? seconds % all[at - 1][0] : seconds) / size), unit]);
  const first = parts.findIndex(([amount]) => amount > 0);
  return parts.slice(first, first + 2).filter(([amount]) => amount > 0).map((part) => part.join(' ')).join(' ');
}

// ---- elements

function setStyle(made, style) {
  for (const [property, value] of Object.entries(style)) made.style.setProperty(property, value);
}

/** An element; `attributes` may hold `class`, `text`, `on` (event: handler), `style` (property: value) and any attribute. */
function element(tag, attributes = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === undefined || value === null || value === false) continue;
    if (name === 'class') made.className = value;
    else if (name === 'text') made.textContent = value;
    else if (name === 'on') for (const [event, handler] of Object.entries(value)) made.addEventListener(event, handler);
    else if (name === 'style') setStyle(made, value);
    else made.setAttribute(name, value === true ? '' : value);
  }
  made.append(...children.filter((child) => child !== null && child !== undefined));
  return made;
}

const swatch = (outcome) =>
  element('span', { class: `swatch ${outcome}`, 'aria-hidden': 'true', text: outcomes[outcome]?.sign ?? '?' });
const outcomeText = (outcome) => outcomes[outcome]?.text ?? shown(outcome);

const foldBuilders = new WeakMap(); // a <details> whose content is not built yet: what builds it

function buildFold(fold) {
  const build = foldBuilders.get(fold);
  if (!build) return;
  foldBuilders.delete(fold);
  fold.append(...[build()].flat());
  updateTabStops();
}

/** A <details> whose content is built when it is opened for the first time. */
function foldable(className, summary, build) {
  const fold = element('details', { class: className }, element('summary', {}, ...[summary].flat()));
  foldBuilders.set(fold, build);
  fold.addEventListener('toggle', () => fold.open && buildFold(fold));
  return fold;
}

function unfold(fold) {
  buildFold(fold);
  fold.open = true;
}

// ---- filters

const filter = { name: '', outcomes: new Set(outcomeOrder), levels: new Set(levels) };
const drawn = []; // what shows one region: { element, region }

const passes = (region) =>
  filter.outcomes.has(region.outcome) && (!filter.name || region.name.toLowerCase().includes(filter.name));

/** Remembers that `made` shows `region`, so that the filters hide it. */
function showsRegion(made, region) {
  drawn.push({ element: made, region });
  made.hidden = !passes(region);
  return made;
}

function applyFilters() {
  for (const { element: made, region } of drawn) made.hidden = !passes(region);
  for (const lane of document.querySelectorAll('.lane[data-queue]'))
    lane.hidden = !lane.querySelector('.line:not([hidden]), .chip:not([hidden]), details');
  updateTabStops();
  tellFiltered();
}

function tellFiltered() {
  const all = report.runs.flatMap((run) => run.regions);
  const left = all.filter(passes).length;
  document.getElementById('filtered').textContent =
    left === all.length ? '' : `${left.toLocaleString('en-US')} of ${count(all.length, 'region')} shown`;
}

function checkbox(label, checked, change) {
  const box = element('input', { type: 'checkbox', on: { change: () => change(box.checked) } });
  box.checked = checked;
  return element('label', {}, box, ...label);
}

function setUpFilters() {
  const counts = new Map();
  for (const run of report.runs)
    for (const region of run.regions) counts.set(region.outcome, (counts.get(region.outcome) ?? 0) + 1);
  const switchIn = (set, key, on, then) => { on ? set.add(key) : set.delete(key); then(); };
  document.getElementById('filter-outcomes').append(...outcomeOrder.filter((key) => counts.has(key)).map((key) =>
    checkbox([swatch(key), `${outcomes[key].text} (${counts.get(key).toLocaleString('en-US')})`], true,
      (on) => switchIn(filter.outcomes, key, on, applyFilters))));
  document.getElementById('filter-levels').append(...levels.map((key) =>
    checkbox([key], true, (on) => switchIn(filter.levels, key, on, redrawRecords))));
  const name = document.getElementById('filter-name');
  name.addEventListener('input', () => { filter.name = name.value.trim().toLowerCase(); applyFilters(); });
  document.getElementById('filters').addEventListener('submit', (event) => event.preventDefault());
}

// ---- the records behind a bar

const panel = {
  root: document.getElementById('records'),
  title: document.getElementById('records-title'),
  body: document.getElementById('records-body'),
  opener: null,
};
const recordLists = []; // lists that the filter of levels redraws: { list, lines, leftOut }

function record(line) {
  const from = [`[${line.component}] [${line.tag}]`, line.place, `process ${line.process}, thread ${line.thread}`];
  return element('li', { class: `record ${line.level}` },
    element('span', { class: 'number', text: line.number, title: 'line of the log' }),
    element('span', { class: 'time', text: clockTime(line.time), title: moment(line.time) }),
    element('span', { class: 'level', text: shown(line.level) }),
    element('span', {}, element('span', { class: 'text', text: shownLines(line.text) }),
      element('span', { class: 'from', text: from.map(shown).join(' · ') })));
}

function fillRecords({ list, lines, leftOut }) {
  const kept = lines.filter((line) => filter.levels.has(line.level));
  const notes = [];
  if (kept.length < lines.length) notes.push(`${count(lines.length - kept.length, 'record')} of other levels not shown`);
  if (leftOut) notes.push(`${count(leftOut, 'more record')} in the log`);
  if (!lines.length && !leftOut) notes.push('no records');
  list.replaceChildren(...kept.map(record), ...notes.map((text) => element('li', { class: 'meta', text })));
}

function recordList(lines, leftOut = 0) {
  const entry = { list: element('ol', { class: 'record-list' }), lines, leftOut };
  recordLists.push(entry);
  fillRecords(entry);
  return entry.list;
}

function redrawRecords() {
  for (let at = recordLists.length - 1; at >= 0; --at) {
    if (recordLists[at].list.isConnected) fillRecords(recordLists[at]);
    else recordLists.splice(at, 1);
  }
}

function facts(pairs) {
  const list = element('dl', { class: 'facts' });
  for (const [term, text] of pairs)
    if (text !== '' && text !== null && text !== undefined)
      list.append(element('dt', { text: term }), element('dd', { text: shown(text) }));
  return list;
}

function attemptText(attempt, number) {
  const parts = [`${number}: ${attemptEnds[attempt.how]?.text ?? shown(attempt.how)}`];
  if (attempt.how !== 'done') parts.push(`at ${attempt.progress} %`);
  if (attempt.begin && attempt.end >= attempt.begin) parts.push(`after ${duration(attempt.end - attempt.begin)}`);
  return parts.join(' ') + (attempt.reason ? `; ${attempt.reason}` : '');
}

function regionRecords(run, region) {
  const told = element('div', {}, facts([
    ['outcome', outcomeText(region.outcome)], ['reason', region.reason], ['running', region.running],
    ['programmed', region.programmed], ['packaged', region.packaged], ['after this run', versionAfter(region)],
    ['verdict of the package', region.verdict], ['image', region.image], ['md5', region.md5],
    ['sequence queue', region.queue], ['waits for', region.dependency], ['last state', region.state],
    ...region.attempts.map((attempt, at) => [at ? '' : 'attempts', attemptText(attempt, at + 1)])]));
  if (region.transitions.length)
    told.append(element('h3', { text: 'States' }), facts(region.transitions.map((one) => [clockTime(one.time), one.to])));
  const lines = element('div', {}, element('h3', { text: 'Records' }), recordList(region.lines, region.lines_left_out));
  return [told, lines];
}

function eventRows(events) {
  return element('div', { class: 'scroll' }, element('table', {}, element('tbody', {}, ...events.map((event) =>
    element('tr', {}, element('td', { text: event.time ? clockTime(event.time) : '' }),
      element('td', { text: eventKinds[event.kind]?.text ?? shown(event.kind) }),
      element('td', { class: 'reason', text: shown(event.text) }))))));
}

function openRecords(opener, title, content) {
  closeRecords(false);
  panel.opener = opener;
  opener.setAttribute('aria-current', 'true');
  panel.title.textContent = title;
  panel.body.replaceChildren(...content);
  panel.root.hidden = false;
  panel.body.scrollTop = 0;
  document.body.classList.add('reading');
  panel.title.focus({ preventScroll: true });
  const under = opener.getBoundingClientRect().bottom - (window.innerHeight - panel.root.offsetHeight) + 40;
  if (under > 0) window.scrollBy(0, under);
}

function closeRecords(focusOpener = true) {
  if (panel.root.hidden) return;
  panel.root.hidden = true;
  document.body.classList.remove('reading');
  panel.opener.removeAttribute('aria-current');
  if (focusOpener) panel.opener.focus();
  panel.opener = null;
}

const openRegion = (opener, run, region) =>
  openRecords(opener, `${shown(region.name)}: ${outcomeText(region.outcome)}, ${runName(run)}`,
    regionRecords(run, region));

// ---- times

/** From the first to the last time that a run tells; null: it tells none. */
function timeSpan(run) {
  let begin = Infinity, end = -Infinity;
  const take = (time) => { if (time) { begin = Math.min(begin, time); end = Math.max(end, time); } };
  take(run.begin);
  take(run.end);
  for (const event of run.events) take(event.time);
  for (const region of run.regions) for (const attempt of region.attempts) { take(attempt.begin); take(attempt.end); }
  return begin < end ? { begin, end } : null;
}

/** Where a time is in a span, in percent. */
const place = (time, span) => Math.min(100, Math.max(0, (time - span.begin) / (span.end - span.begin) * 100));

/** From being queued to the end of the last attempt, or of the wait. */
function barSpan(region, span) {
  const queued = region.transitions.find((one) => one.to.includes('Queued') && one.time);
  const begin = queued?.time || region.attempts[0]?.begin || span.begin;
  const open = region.outcome === 'unfinished' || region.attempts.some((one) => !one.end);
  const ends = [...region.attempts.map((one) => one.end), region.transitions.at(-1)?.time ?? 0];
  const waits = region.outcome === 'planned' && !region.attempts.length;
  return { begin, end: open || waits ? span.end : Math.max(begin, ...ends) };
}

const attemptTime = (attempt) => (attempt.end && attempt.begin ? Math.max(0, attempt.end - attempt.begin) : 0);
const workTime = (region) => region.attempts.reduce((sum, attempt) => sum + attemptTime(attempt), 0);
const versionAfter = (region) => (isUpgraded(region) && region.packaged ? region.packaged : region.programmed);

const tickSteps = [1e3, 2e3, 5e3, 1e4, 2e4, 5e4, 1e5, 2e5, 5e5, 1e6, 2e6, 5e6, 1e7, 1.5e7, 3e7, 6e7, 1.2e8, 3e8, 6e8,
    9e8, 1.8e9, 3.6e9,
  7.2e9, 1.44e10, 4.32e10, 8.64e10];

function ticks(span) {
  const length = span.end - span.begin;
  let step = tickSteps.find((size) => length / size <= 8) ?? 8.64e10;
  while (length / step > 8) step *= 2;
  return Array.from({ length: Math.floor(length / step) + 1 }, (_, at) => at * step);
}

// ---- the timeline

function axis(span) {
  const track = element('div', { class: 'track' }, ...ticks(span).map((time) => {
    const left = place(span.begin + time, span);
    return element('span', { class: left > 96 ? 'late' : null, style: { left: `${left}%` },
        text: time ? `+${duration(time)}` : '0' });
  }));
  return element('div', { class: 'axis', 'aria-hidden': 'true' }, element('span'), track);
}

function rulings(run, span) {
  const lines = ticks(span).map((time) => element('i', { style: { left: `${place(span.begin + time, span)}%` } }));
  for (const event of run.events)
    if (event.kind === 'activation' && event.time)
      lines.push(element('i', { class: 'reload', style: { left: `${place(event.time, span)}%` } }));
  return element('div', { class: 'rulings', 'aria-hidden': 'true' }, ...lines);
}

/** Events of a lane, those that would overlap together: [{ left, events }]. */
function clusters(events, span) {
  const made = [];
  for (const event of [...events].sort((a, b) => a.time - b.time)) {
    const left = span ? place(event.time, span) : 0;
    const last = made.at(-1);
    if (last && left - last.left < markWidth) last.events.push(event);
    else made.push({ left, events: [event] });
  }
  return made;
}

function eventMark(run, cluster, room) {
  const [first] = cluster.events;
  const bad = cluster.events.find((event) => eventKinds[event.kind]?.bad);
  const reload = cluster.events.find((event) => event.kind === 'activation');
  const kind = eventKinds[(bad ?? reload ?? first).kind] ?? { text: shown(first.kind), sign: '?' };
  const tell = (event) => [eventKinds[event.kind]?.text ?? event.kind, event.text].filter(Boolean).map(shown).join(': ');
  const all = cluster.events.map((event) => `${clockTime(event.time)} ${tell(event)}`.trim()).join('; ');
  const more = cluster.events.length > 1 ? ` +${cluster.events.length - 1}` : '';
  const told = room < 8 ? '' : (first.text ? shown(first.text) : kind.text) + more;
  const mark = element('button', { type: 'button', class: `event ${bad ? 'bad' : ''} ${shown(first.kind)}`,
      tabindex: -1, title: all,
    'aria-label': all, style: { left: `${cluster.left}%`, width: `${room}%` } },
  element('b', { 'aria-hidden': 'true', text: kind.sign }), told);
  mark.openRecords = () => openRecords(mark, `Events of the card, ${runName(run)}`, [eventRows(cluster.events)]);
  return mark;
}

function eventLines(run, span) {
  const lane = element('div', { class: 'lane card-events', role: 'group', 'aria-label': 'Events of the card' });
  for (const name of eventLanes) {
    const events = run.events.filter((event) => (eventKinds[event.kind]?.lane ?? 'Run') === name);
    if (!events.length) continue;
    const found = clusters(events, span);
    const punches = name === 'Watchdog' ? ` (${run.watchdog_punches})` : '';
    lane.append(element('div', { class: 'line' }, element('span', { class: 'name', text: name + punches }),
      element('div', { class: 'track' }, ...found.map((cluster, at) =>
        eventMark(run, cluster, (found[at + 1]?.left ?? 100) - cluster.left)))));
  }
  return lane.childElementCount ? lane : null;
}

function attemptClass(attempt, region) {
  if (attempt.how === 'done') return isUpgraded(region) ? region.outcome : 'upgraded';
  return attempt.how;
}

function barLabel(region) {
  const parts = [`${shown(region.name)}: ${outcomeText(region.outcome)}`];
  if (region.attempts.length) parts.push(count(region.attempts.length, 'attempt'), duration(workTime(region)));
  const after = versionAfter(region);
  if (region.running && after) parts.push(`${shown(region.running)} before, ${shown(after)} after`);
  if (region.reason) parts.push(shown(region.reason));
  return parts.join(', ');
}

function bar(run, region, span) {
  const whole = span ? barSpan(region, span) : { begin: 0, end: 0 };
  const left = span ? place(whole.begin, span) : 0;
  const width = span ? Math.max(place(whole.end, span) - left, 0) : 100;
  const inside = (time) => (whole.begin < whole.end ? place(time, whole) : 0);
  const tries = region.attempts.map((attempt, at) => {
    const from = inside(attempt.begin || whole.begin);
    const to = attempt.end ? inside(attempt.end) : 100;
    return element('span', { class: `try ${attemptClass(attempt, region)}`, text: at ? `↻${at + 1}` : '',
      style: { left: `${from}%`, width: `${to - from}%` } });
  });
  const waited = region.attempts.length ? inside(region.attempts[0].begin || whole.begin) : 100;
  const label = barLabel(region);
  return element('button', { type: 'button', class: `bar outcome-${region.outcome}`, tabindex: -1, 'aria-label': label,
      title: label,
    style: { left: `${left}%`, width: `${width}%` } },
  element('span', { class: 'wait', style: { left: 0, width: `${waited}%` } }), ...tries);
}

/** At the end of an attempt that was not done: why. */
function attemptMarks(region, span) {
  if (!span) return [];
  return region.attempts.filter((attempt) => attempt.end && attemptEnds[attempt.how]?.sign).map((attempt) =>
    element('span', { class: `mark mark-${attempt.how}`, 'aria-hidden': 'true', text: attemptEnds[attempt.how].sign,
      style: { left: `${place(attempt.end, span)}%` } }));
}

function resultText(region) {
  if (!isUpgraded(region)) return `${outcomeText(region.outcome)}${region.reason ? `: ${shown(region.reason)}` : ''}`;
  const versions = `${shown(region.running)} → ${shown(versionAfter(region))}`;
  return region.outcome === 'upgraded' ? versions : `${versions}, 2nd attempt`;
}

function row(run, region, span) {
  const made = bar(run, region, span);
  made.openRecords = () => openRegion(made, run, region);
  const line = element('li', { class: 'line' },
    element('span', { class: 'name', text: shown(region.name), title: shown(region.name) }),
    element('div', { class: 'track' }, made, ...attemptMarks(region, span)),
    element('span', { class: 'result', title: resultText(region) },
      element('span', { class: 'sign', text: outcomes[region.outcome]?.sign ?? '?', 'aria-hidden': 'true' }),
          ` ${resultText(region)}`));
  line.openRecords = made.openRecords;
  return showsRegion(line, region);
}

function chip(run, region) {
  const label = [`${shown(region.name)}: ${outcomeText(region.outcome)}`, shown(region.reason)].filter(Boolean).join(', ');
  const made = element('button', { type: 'button', class: `chip outcome-${region.outcome}`, tabindex: -1,
      'aria-label': label, title: label },
    swatch(region.outcome), element('span', { text: shown(region.name) }));
  made.openRecords = () => openRegion(made, run, region);
  return showsRegion(made, region);
}

const chips = (run, regions) => element('div', { class: 'chips' }, ...regions.map((region) => chip(run, region)));
const oddFirst = (regions) =>
  [...regions].sort((a, b) => outcomeOrder.indexOf(a.outcome) - outcomeOrder.indexOf(b.outcome));

function queueLane(run, queue, regions, span) {
  const title = `Sequence queue ${queue}`;
  const begin = (region) => region.attempts[0]?.begin || Infinity;
  const ordered = [...regions].sort((a, b) => (begin(a) === begin(b) ? 0 : begin(a) - begin(b)));
  return element('section', { class: `lane ${regions.length > 100 ? 'many' : ''}`, 'data-queue': queue,
      'aria-label': title },
    element('h3', { text: `${title}: ${count(regions.length, 'region')}` }),
    element('ol', { class: 'rows' }, ...ordered.map((region) => row(run, region, span))));
}

/** Regions that never were in a sequence queue have no time to draw. */
function otherLane(run, regions) {
  const title = 'Not queued';
  const ordered = oddFirst(regions);
  const lane = element('section', { class: 'lane', 'data-queue': 'none', 'aria-label': title },
    element('h3', { text: `${title}: ${count(regions.length, 'region')}` }));
  const odd = ordered.length > chipsAtOnce ? ordered.filter((region) => notWell.has(region.outcome)) : ordered;
  const rest = ordered.filter((region) => !odd.includes(region));
  if (odd.length) lane.append(chips(run, odd));
  if (rest.length)
    lane.append(foldable('others', `${odd.length ? 'and ' : ''}${count(rest.length, 'region')} with nothing to do`,
        () => chips(run, rest)));
  return lane;
}

function timeline(run) {
  const span = timeSpan(run);
  const queues = new Map();
  for (const region of run.regions) {
    const queue = region.queue ?? 'none';
    if (!queues.has(queue)) queues.set(queue, []);
    queues.get(queue).push(region);
  }
  const numbered = [...queues.keys()].filter((queue) => queue !== 'none').sort((a, b) => a - b);
  const timed = run.upgrades || numbered.length > 0 || run.events.length > 0;
  const scaled = span && timed;
  const made = element('div', { class: 'timeline', role: 'group', 'aria-label': `Timeline of ${runName(run)}`,
      'aria-describedby': 'keys' },
    element('div', { class: 'scaled' }, scaled ? axis(span) : null, scaled ? rulings(run, span) : null,
      eventLines(run, span),
      ...numbered.map((queue) => queueLane(run, queue, queues.get(queue), span))),
    queues.has('none') ? otherLane(run, queues.get('none')) : null);
  made.addEventListener('click', openClicked);
  made.addEventListener('keydown', moveAmongStops);
  made.addEventListener('focusin', (event) => event.target.matches(stops) && moveTabStop(made, event.target));
  return made;
}

function openClicked(event) {
  const target = event.target.closest('.bar, .event, .chip, .rows .line');
  target?.openRecords?.();
}

// ---- moving in a timeline: one stop for Tab, the arrow keys from there

const stops = '.bar, .event, .chip';
const isShown = (made) => (made.checkVisibility ? made.checkVisibility() : made.offsetParent !== null);

function moveTabStop(root, stop) {
  for (const before of root.querySelectorAll('[tabindex="0"]')) before.setAttribute('tabindex', '-1');
  stop.setAttribute('tabindex', '0');
}

function updateTabStops() {
  for (const root of document.querySelectorAll('.timeline')) {
    const now = root.querySelector('[tabindex="0"]');
    if (now && !now.closest('[hidden]')) continue;
    const next = [...root.querySelectorAll(stops)].find((stop) => !stop.closest('[hidden]'));
    if (next) moveTabStop(root, next);
  }
}

function moveAmongStops(event) {
  if (!event.target.matches(stops) || event.ctrlKey || event.altKey || event.metaKey) return;
  const all = [...event.currentTarget.querySelectorAll(stops)].filter(isShown);
  const now = all.indexOf(event.target);
  const to = { ArrowDown: now + 1, ArrowRight: now + 1, ArrowUp: now - 1, ArrowLeft: now - 1, Home: 0,
      End: all.length - 1 }[event.key];
  if (to === undefined) return;
  event.preventDefault();
  all[to]?.focus();
}

// ---- tables

const columns = [
  { title: 'Region', value: (region) => region.name },
  { title: 'Outcome', value: (region) => outcomeOrder.indexOf(region.outcome) },
  { title: 'Running', value: (region) => region.running },
  { title: 'Programmed', value: (region) => region.programmed },
  { title: 'Packaged', value: (region) => region.packaged },
  { title: 'After the run', value: versionAfter },
  { title: 'Queue', value: (region) => region.queue ?? -1 },
  { title: 'Attempts', value: (region) => region.attempts.length },
  { title: 'Time', value: workTime },
  { title: 'Reason', value: (region) => region.reason },
];

function regionButton(run, region) {
  const button = element('button', { type: 'button', class: 'link', text: shown(region.name),
    on: { click: () => openRegion(button, run, region) } });
  return button;
}

function tableRow(run, region) {
  const after = versionAfter(region);
  const version = (text, changed) => element('td', { class: changed ? 'version changed' : 'version', text: shown(text) });
  return showsRegion(element('tr', {},
    element('th', { scope: 'row' }, regionButton(run, region)),
    element('td', { class: 'outcome' }, swatch(region.outcome), outcomeText(region.outcome)),
    version(region.running), version(region.programmed), version(region.packaged),
    version(after, after !== region.running),
    element('td', { text: region.queue ?? '' }),
    element('td', { text: region.attempts.length || '' }),
    element('td', { class: 'time', text: workTime(region) ? duration(workTime(region)) : '' }),
    element('td', { class: 'reason', text: shown(region.reason) })), region);
}

function compare(a, b) {
  return typeof a === 'number' && typeof b === 'number' ? a - b :
    String(a).localeCompare(String(b), 'en', { numeric: true });
}

function regionTable(run) {
  const body = element('tbody');
  const rows = oddFirst(run.regions).map((region) => ({ region, made: tableRow(run, region) }));
  body.append(...rows.map(({ made }) => made));
  const heads = columns.map(({ title, value }) => {
    const head = element('th', { scope: 'col' }, element('button', { type: 'button', text: title, on: { click: () => {
      const sign = head.getAttribute('aria-sort') === 'ascending' ? -1 : 1;
      for (const other of heads) other.removeAttribute('aria-sort');
      head.setAttribute('aria-sort', sign > 0 ? 'ascending' : 'descending');
      rows.sort((a, b) => sign * compare(value(a.region), value(b.region)));
      body.append(...rows.map(({ made }) => made));
    } } }));
    return head;
  });
  return element('div', { class: 'scroll' }, element('table', { class: 'regions' },
    element('thead', {}, element('tr', {}, ...heads)), body));
}

/** What ran at each run of one card: versions before and after. */
function versionTable(runs) {
  const names = [...new Set(runs.flatMap((run) => run.regions.map((region) => region.name)))];
  const found = runs.map((run) => new Map(run.regions.map((region) => [region.name, region])));
  const head = element('tr', {}, element('th', { scope: 'col', text: 'Region' }),
    ...runs.map((run) => element('th', { scope: 'col', text: runName(run) })),
    element('th', { scope: 'col', text: 'After the last' }));
  const body = element('tbody', {}, ...names.map((name) => {
    let before = null, last = null;
    const cells = found.map((regions) => {
      const region = regions.get(name);
      if (!region) return element('td', { text: '' });
      const changed = before !== null && before !== region.running;
      before = region.running;
      last = region;
      return element('td', { title: `${outcomeText(region.outcome)}${region.reason ? `: ${shown(region.reason)}` : ''}` },
        swatch(region.outcome),
        element('span', { class: changed ? 'version changed' : 'version', text: shown(region.running) }));
    });
    const after = versionAfter(last);
    cells.push(element('td', {},
      element('span', { class: after !== before ? 'version changed' : 'version', text: shown(after) })));
    return showsRegion(element('tr', {}, element('th', { scope: 'row', text: shown(name) }), ...cells), last);
  }));
  return element('div', { class: 'scroll' }, element('table', { class: 'versions' }, element('thead', {}, head), body));
}

// ---- a run

let severalSources = false;
const runName = (run) => `run ${run.number}${severalSources ? ` of ${shown(run.source)}` : ''}`;

function findings(run) {
  const odd = oddFirst(run.regions.filter((region) => notWell.has(region.outcome)));
  if (!odd.length) return null;
  const rows = odd.slice(0, findingsAtOnce).map((region) => showsRegion(element('tr', {},
    element('td', { class: 'outcome' }, swatch(region.outcome), outcomeText(region.outcome)),
    element('th', { scope: 'row' }, regionButton(run, region)),
    element('td', { class: 'reason', text: shown(region.reason) })), region));
  if (odd.length > findingsAtOnce)
    rows.push(element('tr', {},
      element('td', { colspan: 3, class: 'meta', text: `and ${odd.length - findingsAtOnce} more` })));
  return element('table', { class: 'findings', 'aria-label': 'What is not well' }, element('tbody', {}, ...rows));
}

function runFacts(run) {
  const parts = [shown(run.source), `process ${run.process}`];
  if (run.begin && run.end >= run.begin)
    parts.push(`${moment(run.begin)} to ${clockTime(run.end).slice(0, 8)}, ${duration(run.end - run.begin)}`);
  if (run.stage) parts.push(`manufacturing stage ${shown(run.stage)}`);
  parts.push(count(run.lines, 'line'));
  if (run.unknown_lines) parts.push(`${count(run.unknown_lines, 'line')} not understood`);
  if (run.left_out) parts.push(`${run.left_out} left out, over a limit`);
  return element('p', { class: 'meta', text: parts.join(' · ') });
}

function more(title, number, build) {
  return number ? foldable('more', `${title} (${number.toLocaleString('en-US')})`, build) : null;
}

function runBody(run) {
  const flash = run.flash_events ?? [];
  return [
    runFacts(run),
    run.failure ? element('p', { class: 'failure', text: `The run failed: ${shown(run.failure)}` }) : null,
    findings(run),
    timeline(run),
    more('Regions: outcome, versions, reason', run.regions.length, () => regionTable(run)),
    more('Errors of no region', run.errors.length, () => recordList(run.errors)),
    more('Events of the card', run.events.length, () => eventRows(run.events)),
    more('The event log on the flash', flash.length, () => eventRows(flash.map((event) => ({ ...event,
      text: event.text || [event.region, event.version].filter(Boolean).join(' ') })))),
    more('Lines that were not understood', run.unknown.length, () =>
      element('ol', {}, ...run.unknown.map((text) => element('li', { class: 'text', text: shownLines(text) })))),
  ].filter((part) => part !== null);
}

function badges(run) {
  const made = [element('span', { class: `badge ${run.well ? 'well' : 'bad'}`,
      text: run.well ? '✓ well' : '✗ not well' })];
  const add = (text) => made.push(element('span', { class: 'badge', text }));
  if (run.reload_requested) add('R reload requested');
  if (run.skipped_by_marker) add('M skipped by the marker');
  if (run.disabled) add('– automatic upgrade is disabled');
  if (!run.finished) add('… not finished');
  return made;
}

function drawRun(run) {
  const title = runName(run);
  const fold = foldable('run', [element('h2',
      { text: `${title[0].toUpperCase()}${title.slice(1)} · ${moment(run.begin)}` }), ...badges(run),
    element('span', { class: 'verdict', text: shown(run.verdict) })], () => runBody(run));
  document.getElementById('runs').append(fold);
  return fold;
}

function drawVersions() {
  for (const [source, runs] of groupBySource()) {
    if (runs.length < 2) continue;
    const title = `Versions, run by run${severalSources ? `: ${shown(source)}` : ''}`;
    document.getElementById('runs').append(foldable('run', [element('h2', { text: title }),
      element('span', { class: 'verdict', text: 'what ran when a run began, and what runs after the last' })],
          () => versionTable(runs)));
  }
}

function groupBySource() {
  const groups = new Map();
  for (const run of report.runs) {
    if (!groups.has(run.source)) groups.set(run.source, []);
    groups.get(run.source).push(run);
  }
  return groups;
}

function drawSummary() {
  const bad = report.runs.filter((run) => !run.well).length;
  const names = new Set(report.runs.flatMap((run) => run.regions.map((region) => `${run.source}\n${region.name}`)));
  const sources = [...new Set(report.runs.map((run) => run.source))];
  document.getElementById('summary').textContent = [
    sources.length === 1 ? shown(sources[0]) : count(sources.length, 'log'), count(report.runs.length, 'run'),
    count(names.size, 'region'),
    bad ? `${count(bad, 'run')} not well` : 'all is well'].join(' · ');
  document.title = `FPD upgrades: ${sources.map(shown).slice(0, 3).join(', ')}`;
}

function drawReport() {
  severalSources = new Set(report.runs.map((run) => run.source)).size > 1;
  drawSummary();
  setUpFilters();
  const folds = report.runs.map(drawRun);
  drawVersions();
  let left = drawAtOnce;
  for (let at = folds.length - 1; at >= 0; --at) {
    left -= report.runs[at].regions.length + 1;
    if (left >= 0 || at === folds.length - 1) unfold(folds[at]);
  }
  updateTabStops();
}

// ---- the page

function setUpTheme() {
  const choice = document.getElementById('theme');
  const system = matchMedia('(prefers-color-scheme: dark)');
  const key = 'fpd-report-theme';
  const apply = () => { document.documentElement.dataset.theme = choice.value || (system.matches ? 'dark' : 'light'); };
  try { choice.value = localStorage.getItem(key) ?? ''; } catch { /* a browser that keeps nothing for files */ }
  choice.addEventListener('change', () => {
    try { localStorage.setItem(key, choice.value); } catch { /* as above */ }
    apply();
  });
  system.addEventListener('change', apply);
  apply();
}

function setUpKeys() {
  document.getElementById('records-close').addEventListener('click', () => closeRecords());
  document.addEventListener('keydown', (event) => {
    if (event.key === 'Escape' && !panel.root.hidden) closeRecords();
    if (event.key === '/' && !event.target.closest('input, select') && !event.ctrlKey && !event.altKey && !event.metaKey) {
      event.preventDefault();
      document.getElementById('filter-name').focus();
    }
  });
}

function setUpPrint() {
  let opened = [];
  addEventListener('beforeprint', () => {
    for (let closed; (closed = [...document.querySelectorAll('details:not([open])')]).length;) {
      closed.forEach(unfold);
      opened.push(...closed);
    }
  });
  addEventListener('afterprint', () => { opened.forEach((fold) => { fold.open = false; }); opened = []; });
}

function readReport() {
  const read = JSON.parse(document.getElementById('document').textContent);
  if (read.schema !== 'fpd-report' || read.version !== 1) throw new Error('the document in this page is of another version');
  return read;
}

setUpTheme();
let report = { runs: [] };
try {
  report = readReport();
  drawReport();
  setUpKeys();
  setUpPrint();
} catch (error) {
  document.getElementById('runs').append(element('p', { class: 'notice',
      text: `The report cannot be drawn: ${error.message}` }));
  throw error;
}
