// Moves the object that it is attached to as a tracker's sensor moves. Put this file and
// KinetrelStream.cs into the Assets folder, and add the component to an object.
using UnityEngine;

namespace Kinetrel
{
    public class KinetrelFollower : MonoBehaviour
    {
        [Tooltip("The tracker's slot, 1 to 16: its option -w")]
        public int slot = 1;
        [Tooltip("From 1")]
        public int sensor = 1;

        KinetrelStream tracker;
        float lookAgain; // for a tracker that is not there yet

        void Update()
        {
            if (tracker == null && !TryOpen()) return;
            KinetrelRecord record;
            if (!tracker.Latest(sensor, out record)) return;
            if (record.HasPosition)
            {
                float x, y, z;
                KinetrelUnity.Position(ref record, out x, out y, out z);
                transform.localPosition = new Vector3(x, y, z);
            }
            if (record.HasOrientation)
            {
                float x, y, z, w;
                KinetrelUnity.Rotation(ref record, out x, out y, out z, out w);
                transform.localRotation = new Quaternion(x, y, z, w);
            }
        }

        bool TryOpen()
        {
            if (Time.unscaledTime < lookAgain) return false;
            lookAgain = Time.unscaledTime + 1;
            try { tracker = KinetrelStream.Open(slot, 0); }
            catch (KinetrelException error) { Debug.Log(error.Message); }
            return tracker != null;
        }

        void OnDestroy()
        {
            if (tracker != null) tracker.Dispose();
        }
    }
}
