// The C# client against a real tracker: StreamTest SLOT COUNT prints what it read, one line a record.
using System;
using System.Globalization;
using Kinetrel;

static class StreamTest
{
    static int Main(string[] arguments)
    {
        CultureInfo.CurrentCulture = CultureInfo.InvariantCulture;
        if (arguments[0] == "unity") return Unity();
        int slot = int.Parse(arguments[0]), count = int.Parse(arguments[1]);
        try
        {
            using (KinetrelStream tracker = KinetrelStream.Open(slot, count < 0 ? 0 : 20000))
            {
                for (int i = 0; i < count; ++i)
                {
                    KinetrelRecord record;
                    if (!tracker.Next(out record, 20000)) return Say("nothing came", 1);
                    KinetrelRecord own;
                    if (!tracker.DevicePose(record, out own)) return Say("no device pose", 1);
                    Console.WriteLine("{0} {1} {2:F4} {3:F4} {4:F4} {5}", record.Number, record.Sensor, record.X,
                                      record.Y, own.IsFiltered ? 0 : record.Z - own.Z, record.Age < 20 && record.Age > -1 ? "fresh" : "stale");
                }
                KinetrelRecord newest;
                string text;
                bool known = tracker.Latest(1, out newest) && !tracker.Latest(9, out newest);
                Console.WriteLine("{0} {1} {2} {3}", tracker.State(out text), tracker.DeviceName, known, tracker.Lost);
            }
        }
        catch (KinetrelException error) { return Say(error.Message, 2); }
        return 0;
    }

    static int Say(string text, int code)
    {
        Console.WriteLine(text);
        return code;
    }

    // Half a metre forward, a quarter left, an eighth down; azimuth 30, elevation 20, roll 10 degrees.
    static int Unity()
    {
        KinetrelRecord record = new KinetrelRecord {
            X = 0.5, Y = -0.25, Z = 0.125,
            QW = 0.951548525f, QX = 0.038134576f, QY = 0.189307857f, QZ = 0.239298338f };
        float x, y, z, w;
        KinetrelUnity.Position(ref record, out x, out y, out z);
        Console.Write("{0:F4} {1:F4} {2:F4} ", x, y, z);
        KinetrelUnity.Rotation(ref record, out x, out y, out z, out w);
        return Say(string.Format("{0:F4} {1:F4} {2:F4} {3:F4}", x, y, z, w), 0);
    }
}
