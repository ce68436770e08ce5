// The three charts that tell how a sum went over time: how many, how long, and in which layer.
import { useMemo } from 'preact/hooks';
import { Chart } from '../charts/series.js';
import { html } from '../html.js';
import { count, duration } from '../format.js';
import { layers } from '../layers.js';
import { address, go } from '../router.js';

// One point for every part of the range, also for those in which nothing was.
function filled({ from, until, step_ms: step, points }) {
  const found = new Map(points.map(point => [Date.parse(point.at), point]));
  const first = Math.floor(Date.parse(from) / step) * step;
  const times = [];
  for (let at = first; at < Date.parse(until); at += step) times.push(at);
  return { times, points: times.map(at => found.get(at)) };
}

// What charts of the same series share, and its points.
function useTimes(series, path, parameters) {
  const { times, points } = useMemo(() => filled(series), [series]);
  const marks = useMemo(() => (series.releases ?? []).map(({ at, name }) => ({ at: Date.parse(at), name })), [series]);
  const from = times[0] ?? Date.parse(series.from), until = Math.max(Date.parse(series.until), from + series.step_ms);
  const onZoom = (left, right) => go(address(path, { ...parameters, since: '', from: left, until: Math.max(right, left + 60000) }));
  return { points, shared: { times, marks, from, until, onZoom } };
}

const MOST_POOLS = 6;

// Of each pool, those first that connections waited for, then the busiest: what worked and what waited.
export function PoolsOverTime({ series, path, parameters }) {
  const { shared } = useTimes(series, path, parameters);
  const pools = useMemo(() => {
    const found = new Map(), place = new Map(shared.times.map((at, i) => [at, i]));
    for (const { at, host, pools: ofHost } of series.machine) {
      for (const { name, busy, waiting } of ofHost) {
        const key = JSON.stringify([host, name]);
        if (!found.has(key)) found.set(key, { key, host, name, busy: shared.times.map(() => null), waiting: shared.times.map(() => null) });
        const i = place.get(Date.parse(at));
        if (i !== undefined) [found.get(key).busy[i], found.get(key).waiting[i]] = [busy, waiting];
      }
    }
    const most = values => Math.max(0, ...values.map(value => value ?? 0));
    return [...found.values()].sort((a, b) => most(b.waiting) - most(a.waiting) || most(b.busy) - most(a.busy)).slice(0, MOST_POOLS)
      .map(pool => ({ ...pool, lines: [{ name: 'busy', colour: 'accent', values: pool.busy }, { name: 'waiting', colour: 'bad', dash: [4, 2], values: pool.waiting }] }));
  }, [series]);
  const isFleet = new Set(pools.map(({ host }) => host)).size > 1;
  return html`<div class="charts">${pools.map(({ key, host, name, lines }) => html`<${Chart} key=${key} ...${shared} title=${isFleet ? `${name} on ${host}` : `Pool ${name}`} lines=${lines} format=${value => count(Math.round(value * 10) / 10)} />`)}</div>`;
}

export function OverTime({ series, path, parameters, layered = true }) {
  const { points, shared } = useTimes(series, path, parameters);
  const { times } = shared;
  // The minutes of each part: the last one is not over, and the first begins within the range unless hours are what is kept.
  const begin = series.step_ms % 3600000 ? Date.parse(series.from) : 0;
  const minutes = times.map(at => (Math.min(at + series.step_ms, Date.parse(series.until)) - Math.max(at, begin)) / 60000);
  const per = key => points.map((point, at) => (point ? point[key] / Math.max(minutes[at], 1) : 0));
  const took = key => points.map(point => (point ? point[key] : null));
  const lines = useMemo(() => ({
    many: [{ name: 'per minute', colour: 'accent', values: per('count') }, { name: 'errors', colour: 'bad', dash: [4, 2], values: per('errors') }],
    long: [{ name: 'p50', colour: 'cache', values: took('p50_us') }, { name: 'p95', colour: 'external', values: took('p95_us') }, { name: 'p99', colour: 'waiting', dash: [4, 2], values: took('p99_us') }],
    where: layers.map(layer => ({ name: layer.name, colour: layer.key, values: points.map(point => (point?.count ? point[`${layer.key}_us`] / point.count : 0)) })).filter(line => line.values.some(value => value > 0)),
  }), [points]);
  return html`<div class="charts">
    <${Chart} ...${shared} title="How many" lines=${lines.many} format=${value => count(Math.round(value * 100) / 100)} />
    <${Chart} ...${shared} title="How long" lines=${lines.long} format=${duration} />
    ${layered && lines.where.length > 0 && html`<${Chart} ...${shared} title="Where, on average" lines=${lines.where} area=${true} format=${duration} />`}
  </div>`;
}
