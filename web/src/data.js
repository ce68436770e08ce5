// Asking the API from a view.
import { useEffect, useState } from 'preact/hooks';
import { get } from './api.js';
import { chosenHost } from './router.js';

// { data, error, loading }: the answer to a question about the chosen host, asked again when it changes, and every `every_ms`
// while the page is seen. The former answer stays until the next one is there.
export function useQuestion(path, asked, every_ms = 0) {
  const [state, setState] = useState({ loading: true });
  const parameters = { host: chosenHost(), ...asked };
  const question = path && JSON.stringify([path, parameters]);
  useEffect(() => {
    if (!question) return undefined;
    const ending = new AbortController();
    let timer = 0;
    const ask = async () => {
      try {
        const data = await get(path, parameters, ending.signal);
        setState({ data, question });
      } catch (error) {
        if (!ending.signal.aborted) setState(before => ({ data: before.question === question ? before.data : undefined, question, error }));
      }
      if (every_ms && !ending.signal.aborted) timer = setTimeout(wait, every_ms);
    };
    const wait = () => (document.hidden ? (timer = setTimeout(wait, 1000)) : ask());
    setState(before => ({ ...before, loading: before.question !== question }));
    ask();
    return () => {
      ending.abort();
      clearTimeout(timer);
    };
  }, [question, every_ms]);
  return state;
}
