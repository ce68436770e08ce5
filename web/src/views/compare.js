// Two times held against each other: what came, went, became slower or faster; since a release, or of ranges of one's own.
import { useState } from 'preact/hooks';
import { order } from '../api.js';
import { useQuestion } from '../data.js';
import { actionName, count, duration, fullTime } from '../format.js';
import { html } from '../html.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { address, go } from '../router.js';

// What is asked for by an address: a release by its name, or two ranges; without either the last hour and the one before.
function questionOf({ release, before_from, before_until, from, until, app }, newest) {
  if (from && until) return { before_from, before_until, from, until, app };
  if (release || newest) return { release: release || newest, app };
  return { since: '1h', app };
}

// The value of an input for local times, and back.
const inputOf = ms => {
  const at = new Date(ms - new Date(ms).getTimezoneOffset() * 60000);
  return at.toISOString().slice(0, 16);
};

function Ranges({ answer, parameters }) {
  const ends = { before_from: answer.before.from, before_until: answer.before.until, from: answer.after.from, until: answer.after.until };
  const field = (name, label) => html`<label>${label} <input type="datetime-local" name=${name} required defaultValue=${inputOf(Date.parse(ends[name]))} /></label>`;
  const submit = event => {
    event.preventDefault();
    const chosen = Object.fromEntries(Object.keys(ends).map(name => [name, Date.parse(event.target.elements[name].value)]));
    go(address('/compare', { app: parameters.app, ...chosen }));
  };
  return html`<details class="ranges"><summary>Two ranges of your own</summary><form class="tools" key=${JSON.stringify(ends)} onSubmit=${submit}>
    <fieldset><legend>Before</legend>${field('before_from', 'from')} ${field('before_until', 'until')}</fieldset>
    <fieldset><legend>After</legend>${field('from', 'from')} ${field('until', 'until')}</fieldset>
    <button>Compare</button></form></details>`;
}

// Notes a release, as quorbit mark does: once it has run for a while it can be compared.
function Mark({ onMarked }) {
  const [said, setSaid] = useState('');
  const submit = async event => {
    event.preventDefault();
    const { name, application } = event.target.elements;
    try {
      await order('releases', { name: name.value.trim(), application: application.value.trim() });
      setSaid(`Marked ${name.value.trim()}`);
      name.value = '';
      onMarked();
    } catch (refused) {
      setSaid(refused.message);
    }
  };
  return html`<details class="ranges"><summary>Mark a release that was just rolled out</summary><form class="tools" onSubmit=${submit}>
    <label>Name <input name="name" maxlength="100" required placeholder="1.4.2" /></label> <label>Application <input name="application" placeholder="all" /></label>
    <button>Mark</button> <span role="status">${said}</span></form></details>`;
}

const words = { slower: 'Slower', faster: 'Faster', more_often: 'More often', less_often: 'Less often', appeared: 'New', vanished: 'Gone' };
const bad = (change, by) => change === 'slower' || change === 'more_often' || by === 'error' && change === 'appeared';
const paths = { action: '/actions', query: '/queries', error: '/errors' };
const kinds = { action: 'Action', query: 'Query', error: 'Error' };

const perHour = us => (us ? `${us > 0 ? '+' : '−'}${duration(Math.abs(us))}` : '–');

function Row({ change, range }) {
  const { by, id, name } = change;
  const told = by === 'action' ? actionName(name) : by === 'query' ? html`<code>${name}</code>` : name;
  const side = sums => html`<td class="number">${sums.count ? duration(sums.average_us) : '–'}</td><td class="number wide">${sums.count ? duration(sums.p95_us) : '–'}</td><td class="number wide">${count(sums.count)}</td>`;
  return html`<tr><td>${bad(change.change, by) ? html`<span class="bad">${words[change.change]}</span>` : words[change.change]}</td>
    <td class="wide">${kinds[by]}</td><td class="name">${id ? html`<a href=${address(`${paths[by]}/${id}`, range)}>${told}</a>` : told}${change.place && by !== 'error' && html`<div class="dim">at ${change.place}</div>`}</td>
    ${side(change.before)}${side(change.after)}<td class="number wide">${perHour(change.lost_us_per_hour)}</td></tr>`;
}

function Changes({ answer }) {
  const range = { from: Date.parse(answer.before.from), until: Date.parse(answer.after.until) };
  if (!answer.changes.length) {
    return html`<p class="state">Nothing differs beyond chance. ${count(answer.compared)} actions and queries were in both${answer.too_few_samples > 0 && `, ${count(answer.too_few_samples)} of them too few times to say anything`}.</p>`;
  }
  return html`<${Scroll} label="Changes"><table><thead>
      <tr><th rowspan="2">Change</th><th class="wide" rowspan="2">Kind</th><th rowspan="2">Name</th><th class="number wide" colspan="3">Before</th><th class="number narrowonly">Before</th><th class="number wide" colspan="3">After</th><th class="number narrowonly">After</th><th class="number wide" rowspan="2">Lost each hour</th></tr>
      <tr>${[0, 1].map(side => html`<th key=${`a${side}`} class="number">Average</th><th key=${`b${side}`} class="number wide">p95</th><th key=${`c${side}`} class="number wide">Count</th>`)}</tr></thead>
    <tbody>${answer.changes.map(change => html`<${Row} key=${`${change.by} ${change.id} ${change.change}`} change=${change} range=${range} />`)}</tbody></table><//>
    <p class="dim">Slower and faster are what the ${answer.test} test finds at 1% over all keys together, with 20 samples or more on each side; of errors it is the ${answer.error_test} test of how often they come. ${count(answer.compared)} were in both${answer.too_few_samples > 0 && `, ${count(answer.too_few_samples)} too few times`}.</p>`;
}

export function Compare({ parameters, fleet }) {
  const [marked, setMarked] = useState(0);
  const releases = useQuestion('releases', { app: parameters.app, marked });
  const newest = releases.data?.at(-1)?.name;
  const known = releases.data || releases.error;
  const question = questionOf(parameters, newest);
  const answer = useQuestion(known && 'compare', question);
  const names = [...new Set((releases.data ?? []).map(({ name }) => name).reverse())];
  const choose = event => go(address('/compare', { app: parameters.app, release: event.target.value }));
  const refused = answer.error?.status === 400;
  return html`<div class="title"><h1>Compare</h1>
      ${parameters.app && html`<a class="chip" href=${address('/compare', { ...parameters, app: '' })} aria-label=${`${parameters.app}: show all applications`}>${parameters.app} ×</a>`}
      ${names.length > 0 && html`<label class="range">Since release <select value=${question.release ?? ''} onChange=${choose}>${!question.release && html`<option value="">…</option>`}${names.map(name => html`<option key=${name} value=${name}>${name}</option>`)}</select></label>`}</div>
    ${refused ? html`<p class="state">${answer.error.message}</p>` : html`<${State} answer=${releases.error ? releases : answer}>${answer.data && html`
      <dl class="facts"><div><dt>Before</dt><dd>${fullTime(answer.data.before.from)} to ${fullTime(answer.data.before.until)}</dd></div><div><dt>After</dt><dd>${fullTime(answer.data.after.from)} to ${fullTime(answer.data.after.until)}</dd></div></dl>
      <${Ranges} answer=${answer.data} parameters=${parameters} />
      ${!fleet && html`<${Mark} onMarked=${() => setMarked(marked + 1)} />`}
      <${Changes} answer=${answer.data} />`}<//>`}`;
}
